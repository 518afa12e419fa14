#!/usr/bin/env bash
# Builds the fuzz targets (fuzz/, clang-14 with libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer) in build-fuzz/ and runs each for a while over its
# corpus, then prints executions and crashes per target.
#   bash scripts/fuzz.sh [seconds per target, default 60]
# Environment: FUZZ_BUILD_DIR (default build-fuzz), FUZZ_TARGETS (a subset, by name),
# FUZZ_MAX_LEN (largest generated input, default 4096), FUZZ_BUILD_JOBS.
# Exits non-zero when any target crashed, leaked, hit a sanitizer report, ran
# out of memory or time on one input. Crash inputs stay in <build>/fuzz-artifacts.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=${FUZZ_BUILD_DIR:-build-fuzz}
jobs=${FUZZ_BUILD_JOBS:-$(nproc)}

if ! command -v clang++-14 >/dev/null; then
    echo "fuzz: clang++-14 is missing; run scripts/setup.sh" >&2
    exit 2
fi
if [ ! -f "$build/CMakeCache.txt" ]; then
    mkdir -p "$build"
    CC=clang-14 CXX=clang++-14 cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQX_FUZZ=ON \
        >"$build/configure.log" 2>&1 || { cat "$build/configure.log"; exit 2; }
fi
cmake --build "$build" -j"$jobs" --target fuzz_all

seeds=$build/fuzz-seeds
corpus=$build/fuzz-corpus
artifacts=$build/fuzz-artifacts
logs=$build/fuzz-logs
rm -rf "$seeds" "$logs"
mkdir -p "$corpus" "$artifacts" "$logs"
"$build/fuzz/fuzz_seeds" "$seeds" "$PWD"

targets=${FUZZ_TARGETS:-$(cd "$build/fuzz" && ls fuzz_* | grep -v '^fuzz_seeds$' | sort)}
# A forged count must not make a decoder allocate beyond what its input can
# describe: one allocation above 256 MB, or 1.5 GB in all, is a failure.
limits=(-rss_limit_mb=1536 -malloc_limit_mb=256 -timeout=10)
# Long enough for every real seed; longer inputs mostly slow the search down.
max_len=${FUZZ_MAX_LEN:-4096}

failed=0
total=0
printf '%-34s %14s %10s %8s\n' target executions exec/s crashes
for t in $targets; do
    mkdir -p "$corpus/$t"
    log=$logs/$t.log
    : >"$log"
    status=0
    # Hostile inputs larger than what the fuzzer generates run once, whole.
    if [ -d "$seeds/hostile/$t" ]; then
        "$build/fuzz/$t" "${limits[@]}" -artifact_prefix="$artifacts/$t-" "$seeds/hostile/$t"/* \
            >"$logs/$t.hostile.log" 2>&1 || { status=$?; cat "$logs/$t.hostile.log" >>"$log"; }
    fi
    # The seeds directory comes last: libFuzzer adds what it learns to the first.
    "$build/fuzz/$t" "${limits[@]}" -max_len="$max_len" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$artifacts/$t-" "$corpus/$t" "$seeds/$t" >>"$log" 2>&1 || status=$?
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
    crashes=0
    if [ "$status" -ne 0 ] || grep -qE '^==[0-9]+==ERROR|runtime error:|^SUMMARY: ' "$log"; then
        crashes=1
        failed=1
    fi
    total=$((total + ${execs:-0}))
    printf '%-34s %14s %10s %8s\n' "$t" "${execs:-?}" "${rate:-?}" "$crashes"
    if [ "$crashes" -ne 0 ]; then
        echo "---- $t (exit $status), end of $log:"
        grep -E -A25 '^==[0-9]+==ERROR|runtime error:|deadly signal|out-of-memory|timeout' "$log" | head -60 || tail -40 "$log"
        echo "----"
    fi
done
printf '%-34s %14s\n' total "$total"
exit "$failed"
