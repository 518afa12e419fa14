#!/usr/bin/env bash
# Soak: a publisher and a subscriber process at 1080p, 30 fps, with results on
# separate tag groups, for a number of minutes on the loopback bus. Every 10 s
# it samples resident memory, threads and open files of both processes; at the
# end it prints the samples, the drift from minute 1 to the end, and the frames
# sent and received.
#   bash scripts/soak.sh [minutes, default 10] [pairing mode ...]
# Each pairing mode is handed to qxedgesrc as pairing=<mode>, one run per mode,
# when the element has that property; without modes every mode the element
# offers runs, one after the other. An element without the property runs once,
# with the pairing it has. QX_BUILD_DIR (default build) names the build tree.
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:-10}
shift || true
build=${QX_BUILD_DIR:-build}
fps=30
frames=$((minutes * 60 * fps))

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target gstqxedge gstqxanalytics qxedge-demo >/dev/null
demo=$PWD/$build/tools/qxedge-demo/qxedge-demo

work=$(mktemp -d "${TMPDIR:-/tmp}/qxedge-soak-XXXXXX")
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT

# A bus of its own: a copy of the shipped (loopback-only) configuration with a
# domain id leased the way the tests lease theirs, so neither meets the other.
mkdir -p /tmp/qxedge-test-domains
domain=""
for id in $(seq 1 230); do
    exec {lock}>"/tmp/qxedge-test-domains/$id.lock"
    if flock -n "$lock"; then
        domain=$id
        break
    fi
    exec {lock}>&-
done
[ -n "$domain" ] || { echo "soak: no free bus domain id" >&2; exit 2; }
cp -r common/data_model "$work/root"
sed -i "s/<Domain Id=\"0\">/<Domain Id=\"$domain\">/" "$work/root/config/Marlet.xml"
export GST_PLUGIN_PATH=$PWD/$build/plugins GST_REGISTRY=$work/registry.bin

inspect=$(gst-inspect-1.0 qxedgesrc)
modes=("$@")
if ! grep -qE '^  pairing +:' <<<"$inspect"; then
    [ ${#modes[@]} -eq 0 ] || echo "soak: qxedgesrc has no pairing property; running its only pairing"
    modes=("")
elif [ ${#modes[@]} -eq 0 ]; then
    # The enum values as gst-inspect lists them: "(0): name - description".
    mapfile -t modes < <(awk '/^  pairing +:/ {on = 1; next} on && /^  [a-z]/ {exit} on' <<<"$inspect" |
        sed -n 's/^ *([0-9]*): *\([A-Za-z0-9_-]*\).*/\1/p')
    # Not an enumeration: the element's default only.
    [ ${#modes[@]} -gt 0 ] || modes=("")
fi

# status: VmRSS in kB and Threads; fd: entries of /proc/<pid>/fd.
sample() {
    local pid=$1 rss threads fds
    rss=$(awk '/^VmRSS:/ {print $2}' "/proc/$pid/status" 2>/dev/null) || return 1
    threads=$(awk '/^Threads:/ {print $2}' "/proc/$pid/status" 2>/dev/null) || return 1
    fds=$(ls "/proc/$pid/fd" 2>/dev/null | wc -l)
    [ -n "$rss" ] && echo "$((rss / 1024)) $threads $fds"
}

drift() { # label, first "rss threads fds", last "rss threads fds"
    read -r r0 t0 f0 <<<"$2"
    read -r r1 t1 f1 <<<"$3"
    awk -v l="$1" -v r0="$r0" -v r1="$r1" -v t0="$t0" -v t1="$t1" -v f0="$f0" -v f1="$f1" 'BEGIN {
        printf "%-11s RSS %d -> %d MB (%+.1f%%), threads %d -> %d (%+d), fds %d -> %d (%+d)\n",
               l, r0, r1, (r0 > 0 ? 100 * (r1 - r0) / r0 : 0), t0, t1, t1 - t0, f0, f1, f1 - f0 }'
}

soak() {
    local mode=$1 log=$work/${1:-default}
    echo "==== soak: ${minutes} min, 1920x1080 at $fps fps, pairing ${mode:-(element default)}, bus domain $domain ===="
    (cd "$work/root" && exec "$demo" subscribe --record no --width 1920 --height 1080 --fps $fps \
        --seconds $((minutes * 60 + 120)) --idle 10 ${mode:+--pairing "$mode"} >"$log.sub" 2>&1) &
    local sub=$!
    pids+=("$sub")
    for _ in $(seq 1 300); do
        grep -q "waiting for marlet data" "$log.sub" 2>/dev/null && break
        kill -0 "$sub" 2>/dev/null || break
        sleep 0.1
    done
    (cd "$work/root" && exec "$demo" publish --frames $frames --width 1920 --height 1080 --fps $fps \
        >"$log.pub" 2>&1) &
    local pub=$!
    pids+=("$pub")

    local start=$SECONDS first="" last_pub="" last_sub="" base_pub="" base_sub=""
    printf '%6s  %10s %8s %5s  %10s %8s %5s\n' "t (s)" "pub MB" threads fds "sub MB" threads fds
    while kill -0 "$pub" 2>/dev/null && kill -0 "$sub" 2>/dev/null; do
        local p s t=$((SECONDS - start))
        p=$(sample "$pub") && s=$(sample "$sub") || break
        printf '%6d  %10s %8s %5s  %10s %8s %5s\n' "$t" $p $s
        last_pub=$p last_sub=$s
        [ -n "$first" ] || { first=1; base_pub=$p; base_sub=$s; }
        # Minute 1 is the reference: start-up and discovery are over by then.
        if [ "$t" -ge 60 ] && [ "$first" = 1 ]; then first=2; base_pub=$p; base_sub=$s; fi
        sleep 10
    done
    local status=0
    wait "$pub" || status=$?
    wait "$sub" || status=$?
    echo "drift from minute 1 to the end:"
    [ -z "$last_pub" ] || drift publisher "$base_pub" "$last_pub"
    [ -z "$last_sub" ] || drift subscriber "$base_sub" "$last_sub"
    local sent received
    sent=$(sed -n 's/^published \([0-9]*\) frames.*/\1/p' "$log.pub")
    received=$(sed -n 's/^frames received: *\([0-9]*\) distinct.*/\1/p' "$log.sub")
    echo "frames sent:                  ${sent:-?}"
    grep -E '^(frames|latency)' "$log.sub" || true
    [ -z "$sent" ] || [ -z "$received" ] ||
        awk -v s="$sent" -v r="$received" 'BEGIN { printf "frames lost:                  %d of %d (%.2f%%)\n", s - r, s, s ? 100 * (s - r) / s : 0 }'
    if [ "$status" -ne 0 ]; then
        echo "soak: a process failed (exit $status):"
        tail -n 15 "$log.pub" "$log.sub"
    fi
    return "$status"
}

status=0
for mode in "${modes[@]}"; do
    soak "$mode" || status=1
done
exit "$status"
