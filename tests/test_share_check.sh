#!/bin/sh
# At most a third of the code tests the rest: test_share_check.sh SOURCE_FOLDER. What grows faster than the
# product is cut (CONTRIBUTING.md).
. "$(dirname "$0")/support/checks.sh"
cd "$1" || exit 1

# Lines that are not empty, below the given folders.
count_lines() {
  find "$@" -path ./build -prune -o -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' -o -name '*.sh' \
    -o -name '*.ps1' -o -name '*.py' -o -name '*.cmake' \) -exec cat {} + | grep -c '[^[:space:]]'
}

test_lines=$(count_lines ./tests ./fuzz)
all_lines=$(count_lines .)
echo "counted: $test_lines of $all_lines lines of code are test code"
check "there is test code" test "$test_lines" -gt 1000
check "at most a third of the code is test code" test $((3 * test_lines)) -le "$all_lines"
finish_checks
