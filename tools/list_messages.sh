#!/bin/sh
# Lists every text of the helper that a player may see, one a line, from the sources: all wide literals that
# begin with a capitalised word (or "A") and go on after a blank. Adjacent literals are joined; "\n" stays as written.
# docs/integration.md explains each of them, and a test keeps the two the same.
set -eu
cd "$(dirname "$0")/.."

# Comments go first: headers repeat the messages in theirs.
cat app/*.cpp app/*.h apply/*.cpp apply/*.h rollback/*.cpp rollback/*.h formats/*.cpp formats/*.h \
  storage/*.cpp storage/*.h core/*.cpp core/*.h |
  sed 's|^ *//.*||; s|  // .*||' | tr '\n' ' ' | sed 's/" *L"//g' |
  grep -oE 'L"([^"\\]|\\.)*"' | sed 's/^L"//; s/ *"$//' | grep -E '^[A-Z][a-z]* ' | LC_ALL=C sort -u
