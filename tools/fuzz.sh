#!/bin/sh
# Fuzzes the parsers with libFuzzer on the host, under address and undefined-behaviour checks. Every text has to
# be refused with a known message, or to be written as it was read:
#
#   tools/fuzz.sh [RUNS [PARSER...]]
#
# RUNS texts for each parser (a million unless said otherwise); the parsers are those named in
# tests/support/parser_check.cpp. It goes on from the texts that earlier runs found (build/fuzz/PARSER/), so
# more runs reach further. Needs clang with its libFuzzer. A fault ends it; the text that shows it is then in
# build/fuzz/PARSER-crash-*, and belongs in tests/support/parser_cases.cpp.
set -eu
cd "$(dirname "$0")/.."

all="manifest journal plan first_plan state path decimal digest handle"
runs=${1:-1000000}
[ $# -eq 0 ] || shift
clang=${TALVEX_CLANG:-clang++}
if ! command -v "$clang" > /dev/null; then
  echo "fuzz.sh: $clang is missing: install clang and its libclang-rt package" >&2
  exit 1
fi

folder=build/fuzz
mkdir -p "$folder"
flags="-std=c++20 -O1 -gline-tables-only -Wall -Wextra -Werror -fno-sanitize-recover=all -I. -Ifuzz/host"
objects=
# The program's own sources are watched, the check is only to be fast.
for source in core/text_encoding core/transaction_handles core/update_error formats/apply_plan \
  formats/installed_state formats/manifest formats/relative_path formats/rollback_journal formats/text_lines storage/update_layout \
  tests/support/parser_cases tests/support/parser_check; do
  object=$folder/$(basename "$source").o
  case $source in
    tests/*) checks="-O2" ;;
    *) checks="-fsanitize=fuzzer-no-link,address,undefined" ;;
  esac
  # shellcheck disable=SC2086
  "$clang" $flags $checks -c "$source.cpp" -o "$object"
  objects="$objects $object"
done

# What no parser may call has no address.
for parser in $all; do
  # shellcheck disable=SC2086
  "$clang" $flags -fsanitize=fuzzer,address,undefined -DTALVEX_PARSER="\"$parser\"" \
    fuzz/parser_fuzzer.cpp $objects -no-pie -Wl,--unresolved-symbols=ignore-in-object-files \
    -o "$folder/$parser-fuzzer"
done

# The parsers allocate little and often: long memories of the checks would cost most of the time.
export ASAN_OPTIONS="${ASAN_OPTIONS:-quarantine_size_mb=8:malloc_context_size=4}"

total=0
# shellcheck disable=SC2086
[ $# -ne 0 ] || set -- $all
for parser in "$@"; do
  mkdir -p "$folder/$parser"
  case $parser in
    path | decimal | digest | handle) longest=600 ;;
    *) longest=4096 ;;
  esac
  # One allocation of more than 16 MiB, or five seconds spent on one text, is a fault too.
  "$folder/$parser-fuzzer" -runs="$runs" -max_len=$longest -timeout=5 -malloc_limit_mb=16 -print_funcs=0 \
    -print_final_stats=1 -dict=fuzz/words.dict -artifact_prefix="$folder/$parser-" "$folder/$parser" \
    > "$folder/$parser.log" 2>&1 || {
    tail -40 "$folder/$parser.log" >&2
    exit 1
  }
  executed=$(sed -n 's/^stat::number_of_executed_units: *//p' "$folder/$parser.log")
  total=$((total + executed))
  echo "$parser: $executed" >> "$folder/counts"  # of every run that came to its end
  echo "$parser: $executed executions, $(sed -n 's/^.*DONE *\(cov: [0-9]* ft: [0-9]*\).*$/\1/p' "$folder/$parser.log")"
done
echo "$total executions, no fault"
