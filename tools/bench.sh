#!/bin/sh
# Builds and runs the benchmark, prints its table and writes it to build/bench.csv:
#
#   tools/bench.sh [NAME...]     NAME: size parse start hash memory apply growth client publish; without one, all
#
# Needs about 3 GiB of free disk space and an otherwise idle machine. The exit code is 0 when every figure is
# within its bound.
set -eu
cd "$(dirname "$0")/.."

tools/setup.sh
cmake --preset mingw-release -DTALVEX_BENCHMARKS=ON > /dev/null
cmake --build --preset mingw-release --target bench
wine=build/mingw-release/wine
tools/wine.sh "$wine" start
trap 'tools/wine.sh "$wine" stop' EXIT
csv=$PWD/build/bench.csv
# A copy, because an update schedules the program that ran it for deletion at the next start of Windows.
cp build/mingw-release/bench/bench.exe build/mingw-release/bench/running.exe
(cd build/mingw-release && ../../tools/wine.sh wine run bench/running.exe "Z:$csv" "$@")
