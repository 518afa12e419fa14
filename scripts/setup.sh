#!/usr/bin/env bash
# Installs every Debian 12 package that the build, the tests, the demo and the
# benchmarks need. Safe to run again: apt skips what is already there.
set -euo pipefail

PACKAGES=(
    build-essential cmake pkg-config ninja-build
    cyclonedds-dev cyclonedds-tools
    libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
    gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
    libopencv-core-dev libopencv-imgproc-dev libopencv-imgcodecs-dev
    nlohmann-json3-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    python3-dev pybind11-dev python-gi-dev python3-gi gir1.2-gstreamer-1.0 gir1.2-gst-plugins-base-1.0
    python3-numpy python3-pytest python3-opencv
    procps time
    openssl iproute2
    # scripts/fuzz.sh: clang and its runtimes (libFuzzer, sanitizers)
    clang-14 libclang-rt-14-dev
)

missing=()
for p in "${PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
    echo "setup: all packages present"
    exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
echo "setup: installing ${missing[*]}"
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
