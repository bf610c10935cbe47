#!/bin/sh
# Messages are written down in three places: where they are set, in the header that announces them, and in
# docs/messages.md, which explains those of the helper and of the update library. The three agree.
. "$(dirname "$0")/support/checks.sh"
source=$1
cd "$source" || exit 1

# The backquoted first cells of the tables; those of the lines in the client's log begin with a small letter.
sed -n 's/^| `\([^`]*\)` |.*/\1/p' docs/messages.md > "$work/cells"
grep -E '^([A-Z]|talvex_)' "$work/cells" | LC_ALL=C sort > "$work/documented"
grep -vE '^([A-Z]|talvex_)' "$work/cells" > "$work/documented_lines"
tools/list_messages.sh > "$work/written"
grep -h 'Log(' client/*.cpp | grep -oE 'L"[a-z][^"]*' | sed 's/^L"//; s/ *$//' | LC_ALL=C sort -u > "$work/lines"

# A header of operations that report failures, and any other that lists messages in its comments, lists those
# of its source: all of them, and no other. (A text that ends in "..." tells of progress.)
headers_list_their_messages() {
  compared=0
  # No file name of the project contains a blank.
  # shellcheck disable=SC2044
  for header in $(find core storage formats rollback apply app client publisher examples -name '*.h'); do
    code=${header%.h}.cpp
    grep -oE '^ *//   (TALVEX_E_[A-Z_]* *)?"([^"\\]|\\.)*"' "$header" | sed 's|^[^"]*"||; s|:* *"$||' |
      LC_ALL=C sort -u > "$work/announced"
    [ -f "$code" ] || continue
    [ -s "$work/announced" ] || grep -qE '(UpdateError|Failure)& ' "$header" || continue
    compared=$((compared + 1))
    tools/list_messages.sh "$code" | sed '/\.\.\.$/d; s/:$//' > "$work/set"
    diff "$work/set" "$work/announced" > "$work/difference" || { echo "$header"; cat "$work/difference"; return 1; }
  done
  [ "$compared" -gt 20 ]
}

# Support staff look a sentence up by its first words.
tables_are_in_order() {
  sed -n '/^## What a message box says/,/^## /s/^| `\([^`]*\)` |.*/\1/p' docs/messages.md > "$work/boxes"
  [ "$(wc -l < "$work/boxes")" -gt 100 ] && LC_ALL=C sort -c "$work/boxes"
}

check "more than a hundred messages are found" test "$(wc -l < "$work/written")" -gt 100
check "every message is explained, and nothing else is" diff "$work/written" "$work/documented"
check "so is every line that the library logs" diff "$work/lines" "$work/documented_lines"
check "the message boxes are in alphabetical order" tables_are_in_order
check "headers announce the messages of their sources, and no others" headers_list_their_messages
finish_checks
