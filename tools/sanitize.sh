#!/bin/sh
# Builds with the sanitizers and runs the tests under them: address, leak and undefined behaviour over everything that does
# not embed the script language, thread over what runs threads. Usage: tools/sanitize.sh [JOBS]
set -eu
cd "$(dirname "$0")/.."
jobs=${1:-$(nproc)}
for preset in asan tsan; do
    cmake --preset $preset --log-level=WARNING
    cmake --build --preset $preset -j "$jobs"
    ctest --test-dir build/$preset --output-on-failure -j "$jobs" -E '^clients\.'
done
