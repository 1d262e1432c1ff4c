#!/bin/sh
# Installs what is missing of the packages that lists in tools/ name (tools/packages.txt without arguments); does nothing
# when all are there. A line "PACKAGE (COMMAND)" is satisfied by the command, wherever it came from.
set -eu
here=$(dirname "$0")
[ $# -gt 0 ] || set -- packages.txt
missing=
while read -r package command; do
    command=${command#(}
    command=${command%)}
    [ -z "$command" ] || ! command -v "$command" >/dev/null || continue
    status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$status" = installed ] || missing="$missing $package"
done <<EOF
$(for list in "$@"; do grep -v '^#' "$here/$list"; done)
EOF
[ -n "$missing" ] || exit 0

echo "Installing:$missing"
as_root=
[ "$(id -u)" = 0 ] || as_root=sudo
export DEBIAN_FRONTEND=noninteractive
$as_root apt-get update -q
# shellcheck disable=SC2086 # a list of words
$as_root apt-get install -q -y --no-install-recommends $missing
