#!/bin/sh
# The project's own Wine, in a folder of its own, so that no test or demo touches ~/.wine.
#
# It runs 32-bit and 64-bit programs, as Windows does.
#
#   tools/wine.sh FOLDER start             creates prefix and display, and keeps both ready until "stop"
#   tools/wine.sh FOLDER run PROGRAM...    runs a Windows program in it
#   tools/wine.sh FOLDER run-tests PROGRAM...   runs a GoogleTest program, its output passed on at its end
#   tools/wine.sh FOLDER stop              ends it; fails when programs or temporary files were left behind
set -eu

usage() {
  sed -n '2,/^set/s/^# \{0,1\}//p' "$0" >&2
  exit 2
}

[ $# -ge 2 ] || usage
mkdir -p "$1"
folder=$(cd "$1" && pwd)
action=$2
shift 2

export WINEPREFIX="$folder/prefix"
export WINEARCH=win64
unset TMPDIR  # Wine 10 looks for its running server there, and crashes when it was started with another one
export LC_ALL=C.UTF-8  # in a locale without UTF-8, Wine creates no files with names beyond ASCII
export WINEDEBUG="${WINEDEBUG:--all}"
# No offers to download Mono or Gecko, and no debugger, whose window would keep a crashed program alive.
export WINEDLLOVERRIDES="mscoree,mshtml,winedbg.exe=${WINEDLLOVERRIDES:+;$WINEDLLOVERRIDES}"
temporary="$WINEPREFIX/drive_c/temp"

use_display() {
  if [ -s "$folder/display" ]; then
    DISPLAY=:$(cat "$folder/display")
    export DISPLAY
  fi
}

# The command lines of the programs running in this prefix that are not Wine's own.
programs_left() {
  grep -lzxF "WINEPREFIX=$WINEPREFIX" /proc/[0-9]*/environ 2> /dev/null | while read -r environment; do
    command=$(tr '\0' ' ' 2> /dev/null < "${environment%/environ}/cmdline" || true)
    case $command in
      C:\\windows\\*) ;;
      *.exe*) echo "  $command" ;;
    esac
  done
}

make_prefix() {
  rm -rf "$WINEPREFIX"
  wineboot --init > /dev/null 2>&1
  # Without a window manager Wine waits two seconds for each window, unless windows are unmanaged.
  wine reg add 'HKCU\Software\Wine\X11 Driver' /v Managed /d N /f > /dev/null 2>&1
  for name in TEMP TMP; do
    wine reg add 'HKCU\Environment' /v $name /d 'C:\temp' /f > /dev/null 2>&1
  done
  mkdir -p "$temporary"
  # The symbols on title bar buttons. Debian's Wine does not look where Debian installs this font.
  marlett=/usr/share/wine/fonts/marlett.ttf
  [ ! -e $marlett ] || cp $marlett "$WINEPREFIX/drive_c/windows/Fonts/"
  wineserver --wait
  touch "$folder/ready"
}

start() {
  stop > /dev/null 2>&1 || true  # left by an interrupted run
  if [ -z "${DISPLAY:-}" ]; then
    : > "$folder/display"
    Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp 3> "$folder/display" > /dev/null 2>&1 &
    echo $! > "$folder/xvfb.pid"
    for _ in $(seq 100); do
      [ ! -s "$folder/display" ] || break
      sleep 0.1
    done
    use_display
  fi
  if [ ! -e "$folder/ready" ] || ! grep -qx "#arch=$WINEARCH" "$WINEPREFIX/system.reg"; then
    make_prefix
  fi
  rm -rf "${temporary:?}"
  mkdir -p "$temporary"
  # Wine ends its services with the last program, and restarting them takes most of a second. This one runs
  # until "stop". 32-bit programs: for others, Debian's Wine runs a second one that waits for them.
  wine 'C:\windows\syswow64\ping.exe' -n 7200 127.0.0.1 < /dev/null > /dev/null 2>&1 &
  wine 'C:\windows\syswow64\cmd.exe' /c exit > /dev/null 2>&1  # returns when the services have started
}

stop() {
  # A program that was just told to exit gets two seconds to do so.
  for _ in $(seq 20); do
    left=$(programs_left)
    [ -n "$left" ] || break
    sleep 0.1
  done
  wineserver --kill 2> /dev/null || true
  wineserver --wait 2> /dev/null || true
  if [ -f "$folder/xvfb.pid" ]; then
    xvfb=$(cat "$folder/xvfb.pid")
    rm -f "$folder/xvfb.pid" "$folder/display"
    # The process id may be another program's by now.
    if grep -q Xvfb "/proc/$xvfb/comm" 2> /dev/null; then
      kill "$xvfb"
    fi
  fi
  if [ -n "$left" ]; then
    echo "Still running at the end:"
    echo "$left"
    return 1
  fi
  # Tests use symbolic links instead of junctions. When removing one, Wine removes its target.
  find "$temporary" -type l -delete 2> /dev/null || true
  find "$temporary" -mindepth 1 -depth -type d -empty -delete 2> /dev/null || true
  if [ -n "$(ls -A "$temporary" 2> /dev/null)" ]; then
    echo "Left behind in $temporary:"
    ls -A "$temporary"
    return 1
  fi
}

case $action in
  start) start ;;
  stop) stop ;;
  run)
    use_display
    exec wine "$@"
    ;;
  run-tests)
    use_display
    # Two programs that add their counts to the same file at once would lose some (tools/coverage.sh).
    [ -z "${GCOV_PREFIX:-}" ] || export GCOV_PREFIX="$GCOV_PREFIX/$$"
    # Wine processes started by a program inherit its output and outlive it. With a pipe, its reader would
    # wait for them too.
    output=$(mktemp)
    result=0
    wine "$@" > "$output" 2>&1 < /dev/null || result=$?
    cat "$output"
    # Wine may report success for a program that was killed.
    if [ "$result" = 0 ] && { ! grep -q '^\[  PASSED  \]' "$output" || grep -q '^\[  FAILED  \]' "$output"; }; then
      echo "The program ended before its tests did, or says that it has succeeded when they have not."
      result=1
    fi
    rm -f "$output"
    exit "$result"
    ;;
  *) usage ;;
esac
