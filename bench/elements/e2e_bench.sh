#!/bin/sh
# End to end: raw 1920x1080 I420 frames between two processes on 127.0.0.1,
# qxedgesink -> bus -> qxedgesrc (default pairing, and pairing=frame-id) beside
# gdppay ! tcpclientsink -> tcpserversrc ! gdpdepay in the same run. Prints each
# figure and the ratios qxedge / gdp.
#
#   bench/elements/e2e_bench.sh [build dir]     (E2E_SECONDS=60 sets the paced run's length)
#
# Bounded: every child process ends by itself (frame count, idle timeout); the
# whole run is also capped by timeout(1).
set -eu
BUILD=${1:-build}
SECONDS_PACED=${E2E_SECONDS:-60}
BIN="$BUILD/bench/elements/e2e_transport"
[ -x "$BIN" ] || { echo "missing $BIN: build the e2e_transport target first" >&2; exit 1; }
OUT=$(mktemp /tmp/qx-e2e-XXXXXX.json)
trap 'rm -f "$OUT"' EXIT
E2E_SECONDS=$SECONDS_PACED timeout $((SECONDS_PACED * 4 + 300)) "$BIN" --benchmark_format=json --benchmark_out="$OUT" \
    --benchmark_out_format=json >/dev/null
python3 - "$OUT" <<'PY'
import json, sys
runs = {b["name"].split("/iterations")[0]: b for b in json.load(open(sys.argv[1]))["benchmarks"]}
keys = ["fps", "lat_med_ms", "lat_p99_ms", "received", "lost", "duplicates", "pub_cpu_s", "sub_cpu_s", "pub_rss_mb", "sub_rss_mb"]
def ratio(a, b):
    return f"{a / b:8.2f}" if b else "       -"
for mode in ("BM_Throughput", "BM_Paced"):
    q, f, g = runs.get(mode + "/qxedge"), runs.get(mode + "/frameid"), runs.get(mode + "/gdp")
    if not q or not f or not g:
        print(mode, "missing a run"); continue
    print(f"{mode}: {'figure':<12} {'compatible':>10} {'frame-id':>10} {'gdp/tcp':>10} {'c/gdp':>8} {'f/gdp':>8}")
    for k in keys:
        a, b, c = q.get(k, 0.0), f.get(k, 0.0), g.get(k, 0.0)
        print(f"{'':>{len(mode)+1}} {k:<12} {a:10.2f} {b:10.2f} {c:10.2f} {ratio(a, c)} {ratio(b, c)}")
PY
