#!/bin/sh
# Installs the Debian packages of tools/packages.txt that are missing; does nothing when all are there.
set -eu
here=$(dirname "$0")
missing=
for package in $(grep -v '^#' "$here/packages.txt"); do
    status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$status" = installed ] || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

echo "Installing:$missing"
as_root=
[ "$(id -u)" = 0 ] || as_root=sudo
export DEBIAN_FRONTEND=noninteractive
$as_root apt-get update -q
# shellcheck disable=SC2086 # a list of words
$as_root apt-get install -q -y --no-install-recommends $missing
