#!/bin/sh
# The layout of the sources is the formatter's, whose versions differ: it is asked where it is that of Debian 12.
. "$(dirname "$0")/support/checks.sh"
cd "$1" || exit 1

if clang-format --version 2> /dev/null | grep -q ' version 14\.'; then
  # No file name of the project has a blank in it.
  # shellcheck disable=SC2046
  check "the formatter would change no file" clang-format --dry-run --Werror \
    $(find . -path ./build -prune -o \( -name '*.cpp' -o -name '*.h' \) -print)
fi
finish_checks
