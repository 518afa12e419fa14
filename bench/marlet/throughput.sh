#!/usr/bin/env bash
# Full-HD frames over loopback: our publisher/subscriber (Thing::write and a
# selector) against ddsperf with the same bus configuration, in one run, on a
# domain of its own. Prints samples/s and MB/s of each and the ratio ours/ddsperf,
# unthrottled and at 30 Hz; then ours on the secured bus (the same loopback
# profile with the <Security> section of Marlet-secure.xml: authenticated,
# AES-GCM encrypted) against ours plain, and the ratio secured/plain.
# Samples/s count what the subscriber received.
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

# The secured twin of the root, on the next domain.
secure="$root/secured"
mkdir -p "$secure/config"
cp -r "$root/definitions" "$root/config" "$secure/"
bash "$repo/scripts/make-security.sh" "$secure/security" >/dev/null
{
    sed -e "s/<Domain Id=\"[^\"]*\">/<Domain Id=\"$((domain + 1))\">/" -e '/<\/Domain>/,$d' "$root/config/Marlet.xml"
    sed -n '/<Security>/,/<\/Security>/p' "$repo/common/data_model/config/Marlet-secure.xml"
    sed -n '/<\/Domain>/,$p' "$root/config/Marlet.xml"
} >"$secure/config/Marlet.xml"

# ours <rateHz, 0 = unthrottled> [root] -> "<samples> <bytes> <CPU seconds of both>" received
run_ours() {
    local rate="$1" dir="${2:-$root}" out="$root/ours-sub.txt"
    (cd "$dir" && IXO_SECURITY_ROLE=subscriber exec /usr/bin/time -f "cpu %U %S" -o "$root/sub.cpu" \
        "$ours" sub $((seconds + 30))) >"$out" 2>&1 &
    local sub=$!
    pids+=("$sub")
    for _ in $(seq 100); do grep -q ready "$out" && break; sleep 0.1; done
    (cd "$dir" && IXO_SECURITY_ROLE=publisher /usr/bin/time -f "cpu %U %S" -o "$root/pub.cpu" \
        "$ours" pub "$seconds" "$rate" "$bytes") >/dev/null
    wait "$sub"
    echo "$(awk '/^received/ {print $2, $3}' "$out") $(cat "$root/sub.cpu" "$root/pub.cpu" | awk '/^cpu/ {c += $2 + $3} END {print c}')"
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

# report <label> <ours> <peer> [ours name] [peer name]
report() {
    local label="$1" ours_line="$2" peer_line="$3" on="${4:-ours}" pn="${5:-ddsperf}"
    awk -v label="$label" -v s="$seconds" -v o="$ours_line" -v p="$peer_line" -v on="$on" -v pn="$pn" 'BEGIN {
        split(o, a, " "); split(p, b, " ");
        os = a[1] / s; om = a[2] / s / 1e6; ps = b[1] / s; pm = b[2] / s / 1e6;
        printf "%-12s %-8s %8.1f samples/s %9.1f MB/s\n", label, on, os, om;
        printf "%-12s %-8s %8.1f samples/s %9.1f MB/s\n", label, pn, ps, pm;
        if (ps > 0) printf "%-12s ratio %s/%s %.2f\n", label, on, pn, os / ps; else printf "%-12s ratio n/a\n", label;
    }'
}

# CPU (publisher + subscriber) per received frame, secured and plain: on a
# busy machine a steadier figure than samples/s, which then also measures the
# wait for a core.
cpu_report() {
    awk -v label="$1" -v s="$2" -v p="$3" 'BEGIN {
        split(s, a, " "); split(p, b, " ");
        if (a[1] > 0 && b[1] > 0) {
            cs = 1000 * a[3] / a[1]; cp = 1000 * b[3] / b[1];
            printf "%-12s CPU per frame secured %.1f ms, plain %.1f ms, ratio plain/secured %.2f\n", label, cs, cp, cp / cs;
        }
    }'
}

echo "frames of $bytes bytes, ${seconds}s per run, domain $domain, loopback"
o="$(run_ours 0)"; p="$(run_ddsperf "")"; s="$(run_ours 0 "$secure")"
report unthrottled "$o" "$p"
report unthrottled "$s" "$o" secured plain
cpu_report unthrottled "$s" "$o"
o="$(run_ours 30)"; p="$(run_ddsperf 30Hz)"; s="$(run_ours 30 "$secure")"
report 30Hz "$o" "$p"
report 30Hz "$s" "$o" secured plain
cpu_report 30Hz "$s" "$o"
