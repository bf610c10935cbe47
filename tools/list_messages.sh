#!/bin/sh
# Lists every text that a user may read, one per line, from the sources: all wide literals that begin with a
# capitalised word (or "A", or a function of the library) and continue after a blank. Adjacent literals are
# joined; "\n" stays as written.
#
#   tools/list_messages.sh [FILE...]     without files: those of the helper and of the update library
set -eu
cd "$(dirname "$0")/.."

[ $# -ne 0 ] || set -- app/*.cpp app/*.h apply/*.cpp apply/*.h rollback/*.cpp rollback/*.h formats/*.cpp formats/*.h \
  storage/*.cpp storage/*.h core/*.cpp core/*.h client/*.cpp client/*.h

# Comments are removed first: headers repeat the messages in theirs.
sed 's|^ *//.*||; s|  // .*||' "$@" | tr '\n' ' ' | sed 's/" *L"//g' |
  { grep -oE 'L"([^"\\]|\\.)*"' || true; } | sed 's/^L"//; s/ *"$//' |
  { grep -E '^([A-Z][a-z]*|talvex_[a-z]*) ' || true; } | LC_ALL=C sort -u
