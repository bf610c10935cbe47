#!/bin/sh
# Runs the tests on an instrumented build, and prints the line and branch coverage of the product's folders:
#
#   tools/coverage.sh [--uncovered]     with --uncovered, the numbers of the lines that no test ran too
#
# Programs killed by a test write no counts, so the figures are a little low. Takes about twenty minutes.
set -eu
cd "$(dirname "$0")/.."

tools/setup.sh
command -v gcovr > /dev/null || { echo "coverage.sh: install gcovr first (apt-get install gcovr)" >&2; exit 1; }
build=build/mingw-coverage
cmake --preset mingw-coverage > /dev/null
cmake --build --preset mingw-coverage

# The counts have Unix paths. A program on a drive other than Z: must be told where they are; each test
# program has a folder of its own there (tools/wine.sh).
runs=$PWD/$build/coverage
rm -rf "$runs"
mkdir -p "$runs"
export GCOV_PREFIX="Z:$runs/runs"
# Left out: the checks of the program's file, which is larger when instrumented.
ctest --test-dir "$build" --output-on-failure --parallel 4 \
  --exclude-regex '^(program_file|release_build|package|publisher_key|dll_planting)_test$'

find "$build" -path "$build/coverage" -prune -o -name '*.gcda' -exec rm {} +
# The merge tool creates no folders, and occasionally crashes by itself.
merge_run() {
  for _ in 1 2 3; do
    rm -rf "$runs/next"
    for input in "$runs/merged" "$1"; do
      (cd "$input" && find . -type d -exec mkdir -p "$runs/next/{}" ';')
    done
    if i686-w64-mingw32-gcov-tool-posix merge "$runs/merged" "$1" -o "$runs/next"; then
      rm -rf "$runs/merged"
      mv "$runs/next" "$runs/merged"
      return
    fi
  done
  return 1
}
for run in "$runs"/runs/*; do
  if [ -d "$runs/merged" ]; then
    merge_run "$run"
  else
    cp -r "$run" "$runs/merged"
  fi
done
cp -r "$runs/merged/$PWD/." .
rm -rf "$runs"

# Branches that only an exception takes are left out: the compiler makes one for every call.
gcovr --root . --object-directory "$build" --gcov-executable i686-w64-mingw32-gcov-posix --exclude-throw-branches \
  --filter '(app|core|formats|storage|apply|rollback|client|publisher)/' "$build" > build/coverage-lines.txt
gcovr --root . --object-directory "$build" --gcov-executable i686-w64-mingw32-gcov-posix --exclude-throw-branches \
  --filter '(app|core|formats|storage|apply|rollback|client|publisher)/' --branches "$build" > build/coverage-branches.txt
if [ "${1:-}" = --uncovered ]; then
  cat build/coverage-lines.txt
fi
echo "Lines:    $(grep '^TOTAL' build/coverage-lines.txt | awk '{ print $4, "(" $3 " of " $2 ")" }')"
echo "Branches: $(grep '^TOTAL' build/coverage-branches.txt | awk '{ print $4, "(" $3 " of " $2 ")" }')"
