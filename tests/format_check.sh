#!/bin/sh
# The layout of the sources is the formatter's, whose versions differ: it is asked where it is that of Debian 12.
# It breaks no comment and no literal, so the length of the lines is checked besides.
. "$(dirname "$0")/support/checks.sh"
cd "$1" || exit 1

# Meant to be split: no file name of the project has a blank in it.
files=$(find . -path ./build -prune -o \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) -print)

no_line_is_too_long() {
  # shellcheck disable=SC2086
  ! grep -nE '.{111}' $files
}

check "no line has more than 110 characters" no_line_is_too_long
if clang-format --version 2> /dev/null | grep -q ' version 14\.'; then
  # shellcheck disable=SC2086
  check "the formatter would change no file" clang-format --dry-run --Werror $files
fi
finish_checks
