#!/usr/bin/env bash
# The main job. On a fresh Debian 12 machine: installs what is needed, builds,
# then runs a publishing pipeline and a subscribing pipeline in two processes
# that meet on the loopback bus, and prints what crossed it.
#
#   publisher:  videotestsrc pattern=ball ! qxanalyze ! qxedgesink (every tag group)
#   subscriber: qxedgesrc ! qxoverlay ! (video file, PNG snapshots, counters)
#
# QX_DEMO_FRAMES (default 300) sets how many frames are sent, at 30 per second;
# QX_BUILD_DIR (default build) the build tree to use.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
build="${QX_BUILD_DIR:-build}"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target gstqxedge gstqxanalytics qxedge-demo

export GST_PLUGIN_PATH="$PWD/$build/plugins"
export GST_REGISTRY="$PWD/$build/demo-registry.bin"
frames="${QX_DEMO_FRAMES:-300}"
out="demo-output"
rm -rf "$out"
mkdir -p "$out"
demo="$build/tools/qxedge-demo/qxedge-demo"

echo "subscriber: qxedgesrc ! qxoverlay -> $out/"
"$demo" subscribe --expect "$frames" --seconds $((frames / 30 + 60)) --out "$out" >"$out/subscriber.log" 2>&1 &
subscriber=$!
# The subscriber prints this once it is on the bus and waits for the first frame.
for _ in $(seq 1 300); do
    grep -q "waiting for marlet data" "$out/subscriber.log" 2>/dev/null && break
    kill -0 "$subscriber" 2>/dev/null || break
    sleep 0.1
done

echo "publisher:  videotestsrc pattern=ball ! qxanalyze ! qxedgesink ($frames frames at 30 fps)"
status=0
"$demo" publish --frames "$frames" >"$out/publisher.log" 2>&1 || status=$?
wait "$subscriber" || status=$?

echo
echo "==== qxedge demo summary ===="
grep -h "^published " "$out/publisher.log" | sed 's/^/frames /' || echo "publisher printed no count (see $out/publisher.log)"
grep -h -E "^(frames|detection|latency|video|snapshot)" "$out/subscriber.log" || echo "subscriber printed no summary (see $out/subscriber.log)"
echo "logs:                         $out/publisher.log, $out/subscriber.log"
if [ "$status" -ne 0 ]; then
    echo "demo FAILED (exit $status)"
    tail -n 20 "$out/subscriber.log" "$out/publisher.log" >&2
fi
exit "$status"
