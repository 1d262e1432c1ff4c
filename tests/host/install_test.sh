#!/bin/sh
# What `make install` lays out runs from another place, through the link on the PATH, without the build.
# Usage: install_test.sh BUILD
set -eu
build=$1
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix/lib/vendra" >"$prefix/log"
mkdir "$prefix/bin"
ln -s ../lib/vendra/bin/vendra "$prefix/bin/vendra"
unset VENDRA_ROOT LD_LIBRARY_PATH
export HOME="$prefix" XDG_RUNTIME_DIR="$prefix" XDG_CONFIG_HOME="$prefix"
served=$("$prefix/bin/vendra" -c '
import connector, glob, json, os, urllib.request
connector.start()
host = json.load(open(glob.glob(os.environ["XDG_RUNTIME_DIR"] + "/vendra/*.json")[0]))
ask = urllib.request.Request(host["url"] + "icon.svg", headers={"Authorization": "Bearer " + host["token"]})
maps = open("/proc/self/maps").read().split()
print(urllib.request.urlopen(ask).status, next(word for word in maps if word.endswith("libzkconnector.so")))
')
[ "$served" = "200 $prefix/lib/vendra/lib/libzkconnector.so" ] || { echo "not what is installed: $served"; exit 1; }
