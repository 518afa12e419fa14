#!/usr/bin/env bash
# Full-HD frames over loopback: our publisher/subscriber (Thing::write and a
# selector) against ddsperf with the same bus configuration, in one run, on a
# domain of its own. Prints samples/s and MB/s of each and the ratio ours/ddsperf,
# unthrottled and at 30 Hz.
#
#   bench/marlet/throughput.sh [build dir] [seconds per run]
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
repo="$(cd "$here/../.." && pwd)"
build="$(cd "${1:-$repo/build}" && pwd)"
seconds="${2:-10}"
domain="${MARLET_BENCH_DOMAIN:-17}"
bytes=6220800
ours="$build/bench/marlet/marlet_throughput"

command -v ddsperf >/dev/null || { echo "ddsperf not found (cyclonedds-tools)" >&2; exit 1; }
[ -x "$ours" ] || { echo "$ours not built (configure with -DQX_BUILD_BENCH=ON)" >&2; exit 1; }

root="$(mktemp -d /tmp/marlet-throughput-XXXXXX)"
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    rm -rf "$root"
}
trap cleanup EXIT
cp -r "$repo/common/data_model/." "$root/"
sed -i "s/<Domain Id=\"[^\"]*\">/<Domain Id=\"$domain\">/" "$root/config/Marlet.xml"
export CYCLONEDDS_URI="file://$root/config/Marlet.xml"

# ours <rateHz, 0 = unthrottled> -> "<samples> <bytes>" received
run_ours() {
    local rate="$1" out="$root/ours-sub.txt"
    (cd "$root" && exec "$ours" sub $((seconds + 30))) >"$out" 2>&1 &
    local sub=$!
    pids+=("$sub")
    for _ in $(seq 100); do grep -q ready "$out" && break; sleep 0.1; done
    (cd "$root" && "$ours" pub "$seconds" "$rate" "$bytes") >/dev/null
    wait "$sub"
    awk '/^received/ {print $2, $3}' "$out"
}

# ddsperf <rate spec, empty = unthrottled> -> "<samples> <bytes>" received
run_ddsperf() {
    local rate="$1" out="$root/ddsperf-sub.txt"
    ddsperf -i "$domain" -D $((seconds + 4)) sub >"$out" 2>&1 &
    local sub=$!
    pids+=("$sub")
    ddsperf -i "$domain" -D "$seconds" -Qminmatch:1 -Qinitwait:10 pub $rate size "$bytes" >/dev/null 2>&1 || true
    wait "$sub" || true
    local total
    total="$(grep -o 'total [0-9]*' "$out" | tail -1 | awk '{print $2}')"
    echo "${total:-0} $(( ${total:-0} * bytes ))"
}

report() {
    local label="$1" ours_line="$2" peer_line="$3"
    awk -v label="$label" -v s="$seconds" -v o="$ours_line" -v p="$peer_line" 'BEGIN {
        split(o, a, " "); split(p, b, " ");
        os = a[1] / s; om = a[2] / s / 1e6; ps = b[1] / s; pm = b[2] / s / 1e6;
        printf "%-12s ours    %8.1f samples/s %9.1f MB/s\n", label, os, om;
        printf "%-12s ddsperf %8.1f samples/s %9.1f MB/s\n", label, ps, pm;
        if (ps > 0) printf "%-12s ratio ours/ddsperf %.2f\n", label, os / ps; else printf "%-12s ratio n/a\n", label;
    }'
}

echo "frames of $bytes bytes, ${seconds}s per run, domain $domain, loopback"
o="$(run_ours 0)"; p="$(run_ddsperf "")"
report unthrottled "$o" "$p"
o="$(run_ours 30)"; p="$(run_ddsperf 30Hz)"
report 30Hz "$o" "$p"
