#!/bin/sh
# Builds one fuzz target with clang and runs it over its corpus; new inputs are kept beside the build.
# Usage: tools/fuzz.sh NAME [SECONDS]
set -eu
cd "$(dirname "$0")/.."
name=$1
seconds=${2:-60}
for package in clang-14 libclang-rt-14-dev; do
    dpkg -s $package >/dev/null 2>&1 || apt-get install -y --no-install-recommends $package
done
cmake --preset fuzz --log-level=WARNING
cmake --build build/fuzz --target "fuzz_$name"
found=build/fuzz/found/$name
mkdir -p "$found"
UBSAN_OPTIONS=halt_on_error=1 build/fuzz/fuzz/"$name" -max_total_time="$seconds" -artifact_prefix="$found/" "$found" "fuzz/corpus/$name"
