#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds everything and runs the tests.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc)"
cd build
ctest --output-on-failure -j"$(nproc)" --timeout 300
