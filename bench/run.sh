#!/bin/sh
# Runs the benchmarks of a build. Usage: bench/run.sh BUILD_FOLDER
set -eu
build=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
export VENDRA_ROOT="$build/root" XDG_RUNTIME_DIR="$folder" XDG_CONFIG_HOME="$folder"

echo "== Framework and builtins"
"$build/bench/module_bench" --benchmark_min_time=1
echo
echo "== Eval over one kept-alive connection"
"$build/bench/eval_bench" "$build/root/bin/vendra"
echo
echo "== The guards of a route"
"$build/bench/guard_bench" --benchmark_min_time=1
echo
echo "== HTTP beside nginx"
/usr/bin/python3 bench/http_bench.py "$build"
echo
echo "== Normal requests among slow ones"
/usr/bin/python3 bench/slow_clients.py "$build"
echo
echo "== Evaluations beside a floor and a notebook server"
/usr/bin/python3 bench/host_bench.py "$build"
echo
echo "== The message bus beside Faye"
/usr/bin/python3 bench/bayeux_bench.py "$build"
