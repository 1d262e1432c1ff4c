#!/bin/sh
# Fails when a C or C++ file is not as .clang-format has it; "--fix" puts it right.
set -eu
cd "$(dirname "$0")/.."
mode="--dry-run -Werror"
[ "${1:-}" = --fix ] && mode=-i
# shellcheck disable=SC2086 # a list of words
git ls-files -z --cached --others --exclude-standard -- '*.cpp' '*.h' '*.c' | xargs -0 -r clang-format-14 $mode
echo "format: in order"
