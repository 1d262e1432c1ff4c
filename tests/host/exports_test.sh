#!/bin/sh
# The module shows four names and no others. Usage: exports_test.sh MODULE.so
set -eu
expected='QueryVDFcnTable_libzkconnectorusvendrahost
libzkconnectorusvendrahost_build_date
libzkconnectorusvendrahost_relative_path
libzkconnectorusvendrahost_version'
found=$(nm -D --defined-only "$1" | awk '{print $3}' | LC_ALL=C sort)
[ "$found" = "$expected" ] && exit 0
printf 'exported:\n%s\nexpected:\n%s\n' "$found" "$expected"
exit 1
