#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds everything and runs the tests, in
# three stages:
#   1. the ordinary build (build/) and the whole suite, ThreadSanitizer test included;
#   2. the tree built again with AddressSanitizer and UndefinedBehaviorSanitizer
#      (build-asan/) and the whole suite under them, child pipelines included;
#   3. every fuzz target for a short while over its corpus (scripts/fuzz.sh).
# QX_TEST_QUICK=1 runs stage 1 only, for a quick local loop; CI runs all three.
# Every stage runs with GLib criticals fatal: a critical is a bug, not noise.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
jobs=$(nproc)
export G_DEBUG=fatal-criticals

# Runs the suite of one build tree; with parallel tests a failure's output is
# buried mid-log, so the failed ones run again, one at a time, to end the log
# and show whether the failure repeats. The first run's verdict stands.
run_suite() {
    local status=0
    (cd "$1" && ctest --output-on-failure -j"$jobs" --timeout 300) || status=$?
    if [ "$status" -ne 0 ]; then
        echo "== $1: failed tests, run again one at a time =="
        (cd "$1" && ctest --rerun-failed --output-on-failure --timeout 300) || true
    fi
    return "$status"
}

# Programs the sanitizer suite starts that are not built here (gst-launch-1.0,
# gst-inspect-1.0) load the instrumented plug-ins, so they get the sanitizer
# runtimes preloaded (and libstdc++, whose exceptions the runtime intercepts).
# Only they do: a global preload also reaches cmake and cpack, and cpack
# deadlocks in setlocale with libasan preloaded.
sanitizer_wrappers() {
    local dir=$1/sanitizer-bin preload=""
    mkdir -p "$dir"
    for lib in libasan.so libubsan.so libstdc++.so; do
        preload="$preload${preload:+:}$(readlink -f "$(gcc -print-file-name=$lib)")"
    done
    for program in gst-launch-1.0 gst-inspect-1.0; do
        printf '#!/bin/sh\nexport LD_PRELOAD=%s${LD_PRELOAD:+:$LD_PRELOAD}\nexec %s "$@"\n' \
            "$preload" "$(command -v $program)" >"$dir/$program"
        chmod +x "$dir/$program"
    done
    echo "$PWD/$dir"
}

status=0
stages=()
timed() {
    local name=$1 start=$SECONDS result=0
    shift
    echo "==== stage: $name ===="
    "$@" || result=$?
    stages+=("$(printf '%-32s %5d s  %s' "$name" $((SECONDS - start)) "$([ $result -eq 0 ] && echo ok || echo FAILED)")")
    [ "$result" -eq 0 ] || status=1
}

# Stages run where errexit does not apply (their status is collected), hence
# the explicit returns.
stage_ordinary() {
    cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo || return
    cmake --build build -j"$jobs" || return
    run_suite build
}

stage_sanitizers() {
    cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQX_SANITIZE_ADDRESS=ON \
        -DQX_BUILD_BENCH=OFF || return
    cmake --build build-asan -j"$jobs" || return
    # Leaks inside GLib, GStreamer, Cyclone DDS and OpenCV are theirs; the
    # suppressions name the functions that allocate them, and the system
    # libraries keep no frame pointers, so allocation stacks are unwound the
    # slow way, 8 frames deep (deep enough for every suppression, and far
    # cheaper than the default 30).
    local wrappers
    wrappers=$(sanitizer_wrappers build-asan) || return
    PATH="$wrappers:$PATH" \
        ASAN_OPTIONS="detect_leaks=1:detect_odr_violation=2:strict_init_order=1:fast_unwind_on_malloc=0:malloc_context_size=8" \
        LSAN_OPTIONS="suppressions=$PWD/scripts/lsan.supp:print_suppressions=0" \
        UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
        G_SLICE=always-malloc \
        run_suite build-asan
}

timed "build + suite" stage_ordinary
if [ "${QX_TEST_QUICK:-0}" != 1 ]; then
    timed "ASan/UBSan build + suite" stage_sanitizers
    timed "fuzz smoke (20 s per target)" bash scripts/fuzz.sh 20
fi
echo "==== stages ===="
printf '%s\n' "${stages[@]}"
exit "$status"
