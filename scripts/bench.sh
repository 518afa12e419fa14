#!/usr/bin/env bash
# Runs every benchmark and prints each figure beside a peer measured in the
# same run. Takes about ten minutes (the paced end-to-end run alone is 60 s of
# frames per transport; E2E_SECONDS shortens it).
#
#   scripts/bench.sh [build dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"

bash scripts/setup.sh
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQX_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j"$(nproc)"

section() { printf '\n==== %s ====\n' "$1"; }

section "records and converters (ratio to memcpy / cvtColor)"
python3 bench/utils/ratios.py "$build"

section "pair codec"
"$build/bench/marlet/marlet_codec_bench" --benchmark_counters_tabular=true

section "bus throughput, 6,220,800-byte samples (ratio to ddsperf)"
bash bench/marlet/throughput.sh "$build" 10

section "session reader thread (ratio to a plain read)"
"$build/bench/session/session_read_bench"

section "publishing cost per 1080p frame (ratio to videoconvert to BGR)"
"$build/bench/elements/sink_publish_bench"

section "filler segmentation record per frame"
"$build/bench/elements/sink_segment_bench"

section "end to end, 1080p I420 (ratio to gdppay over TCP)"
sh bench/elements/e2e_bench.sh "$build"
