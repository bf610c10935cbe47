# shellcheck shell=sh
# For test scripts (sh): one line for each thing that was checked, which tools/test.sh counts, and a folder for
# temporary files, $work, that goes away at the end. End a script with `finish_checks`.
set -u  # not -e: a check that fails is counted, and the next one runs

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# check WHAT COMMAND...: WHAT holds when the command succeeds. Its output is shown when it does not.
check() {
  what=$1
  shift
  if "$@" > "$work/check.log" 2>&1; then
    echo "ok - $what"
  else
    echo "not ok - $what"
    sed 's/^/  # /' "$work/check.log"
    failures=$((failures + 1))
  fi
}

# refuses TEXT COMMAND...: the command fails and says so in these words, wherever its lines are broken.
refuses() {
  text=$1
  shift
  if ! "$@" > "$work/refusal.log" 2>&1 && tr -s ' \r\n' ' ' < "$work/refusal.log" | grep -qF -- "$text"; then
    return
  fi
  cat "$work/refusal.log"
  return 1
}

finish_checks() {
  exit $((failures != 0))
}
