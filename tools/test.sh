#!/bin/sh
# Installs what is missing, builds and runs every test, or those whose ctest name matches a pattern:
#
#   tools/test.sh [PATTERN]
#
# The last line counts the cases of all GoogleTest programs and the checks of all test scripts. The exit code is
# 0 only when some ran, none failed and none was skipped.
set -eu
cd "$(dirname "$0")/.."

preset=${TALVEX_PRESET:-mingw-release}
build=build/$preset

tools/setup.sh
cmake --preset "$preset"
cmake --build --preset "$preset"

# ctest ends its Wine by itself, unless it is interrupted.
trap 'tools/wine.sh "$build/wine" stop > /dev/null 2>&1' INT TERM HUP
log=$build/Testing/Temporary/LastTest.log
rm -f "$log"
succeeded=yes
ctest --test-dir "$build" --output-on-failure --parallel 4 ${1:+--tests-regex "$1"} || succeeded=no

# A GoogleTest case ends with a line "[       OK ] Suite.Case (3 ms)", a script's check with "ok - what holds".
tr -d '\r' < "$log" > "$log.lines"
passed=$(grep -cE '^(\[       OK \] |ok - )' "$log.lines" || true)
failed=$(grep -cE '^(\[  FAILED  \] .* \([0-9]+ ms\)|not ok - )' "$log.lines" || true)
skipped=$(grep -cE '^(\[  SKIPPED \] .* \([0-9]+ ms\)|skip - )' "$log.lines" || true)
if [ "$succeeded" = no ] && [ "$failed" = 0 ]; then
  failed=1  # a crash, a time-out or something left behind, which no line reports
fi
# The counts of the large tests, and the sums of the fault matrix.
sed -n 's/^counted: //p' "$log.lines"
awk '/^counted: .* points:/ {
  for (i = 2; i <= NF; ++i) {
    points += $i == "points:" ? $(i - 1) : 0
    lost += $i == "lost" ? $(i - 1) : 0
  }
}
END { if (points) print points " points of the fault matrix, " lost " lost" }' "$log.lines"
[ "$skipped" = 0 ] || echo "$skipped skipped"
echo "$passed passed, $failed failed"
[ "$succeeded" = yes ] && [ "$failed" = 0 ] && [ "$skipped" = 0 ] && [ "$passed" != 0 ]
