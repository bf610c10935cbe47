#!/bin/sh
# Messages are written down in three places: where they are set, in the header that announces them, and in
# docs/integration.md, which explains those of the helper. The three agree.
. "$(dirname "$0")/support/checks.sh"
source=$1
cd "$source" || exit 1

# Backquoted first cells of the tables after the heading.
sed -n '/^## Every message/,$s/^| `\([^`]*\)` |.*/\1/p' docs/integration.md | LC_ALL=C sort > "$work/documented"
tools/list_messages.sh > "$work/written"

# A header that lists messages in its comments lists those of its source: all of them, and no other. (A text
# that ends in "..." tells of progress.)
headers_list_their_messages() {
  compared=0
  for header in $(find core storage formats rollback apply app publisher examples -name '*.h'); do
    code=${header%.h}.cpp
    grep -oE '^ *//   "([^"\\]|\\.)*"' "$header" | sed 's|^ *//   "||; s|:* *"$||' | LC_ALL=C sort -u > "$work/announced"
    [ -s "$work/announced" ] && [ -f "$code" ] || continue
    compared=$((compared + 1))
    tools/list_messages.sh "$code" | grep -v '\.\.\.$' > "$work/set"
    diff "$work/set" "$work/announced" > "$work/difference" || { echo "$header"; cat "$work/difference"; return 1; }
  done
  [ "$compared" -gt 20 ]
}

check "more than a hundred messages are found" test "$(wc -l < "$work/written")" -gt 100
check "every message is explained, and nothing else is" diff "$work/written" "$work/documented"
check "headers announce the messages of their sources, and no others" headers_list_their_messages
finish_checks
