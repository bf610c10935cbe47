#!/bin/sh
# The messages that docs/integration.md explains are exactly those of the sources.
. "$(dirname "$0")/support/checks.sh"

source=$1
# Backquoted first cells of the tables after the heading.
sed -n '/^## Every message/,$s/^| `\([^`]*\)` |.*/\1/p' "$source/docs/integration.md" | LC_ALL=C sort > "$work/documented"
"$source/tools/list_messages.sh" > "$work/written"

check "more than a hundred messages are found" test "$(wc -l < "$work/written")" -gt 100
check "every message is explained, and nothing else is" diff "$work/written" "$work/documented"
finish_checks
