#!/bin/sh
# Builds with the sanitizers and runs the tests under them: address, leak and undefined behaviour over everything; thread
# over all but the script language, whose loops the thread sanitizer keeps from being interrupted.
# Usage: tools/sanitize.sh [JOBS]
set -eu
cd "$(dirname "$0")/.."
jobs=${1:-$(nproc)}
for preset in asan tsan; do
    cmake --preset $preset --log-level=WARNING
    cmake --build --preset $preset -j "$jobs"
done
ctest --test-dir build/asan --output-on-failure -j "$jobs"
TSAN_OPTIONS="suppressions=$PWD/tools/tsan.supp" ctest --test-dir build/tsan --output-on-failure -j "$jobs" -E '^(clients\.|vendra)'
