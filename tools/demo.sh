#!/bin/sh
# Shows the life cycle of a client directory with the real programs, on files of this machine:
#
#   tools/demo.sh [DIR]
#
# DIR is the game's data; without it, libraries of the compiler are used (at least 300 files, 64 MiB). Files
# that a release cannot contain are left out, and at most 1,000 are used. Installs what is missing and builds
# first. Everything happens below build/demo. The exit code is 0 only when every step went as announced.
set -eu

cd "$(dirname "$0")/.."
root=$PWD
build=$root/build/mingw-release
demo=$root/build/demo
wine_folder=$demo/wine
picture=$demo/status-window.png
# In Wine's drive C, where paths are short: a client directory has room for long paths in it.
drive=$wine_folder/prefix/drive_c
place=$drive/demo
client=$place/client
log=$place/client.log

data=${1:-}
[ -z "$data" ] || [ -d "$data" ] || { echo "demo: $data is not a directory" >&2; exit 2; }

now="The demo starts"
started=no
step() {
  now=$1
  printf '\n== %s\n' "$now"
}
finish() {
  result=$?
  trap - EXIT
  if [ $started = yes ]; then
    tools/wine.sh "$wine_folder" stop || result=1
  fi
  if [ $result != 0 ]; then
    printf '\nFAILED at this step: %s\n' "$now" >&2
  fi
  exit $result
}
trap finish EXIT
trap 'exit 1' INT TERM HUP

wine_run() {
  tools/wine.sh "$wine_folder" run "$@"
}

# --- the game's data -------------------------------------------------------------------------------------------

# The files below a directory that a release can contain, with their sizes, in a stable order: plain names,
# one link, not empty, no path that is too long to be staged.
list_usable() {
  find "$1" -type f -links 1 -size +0 -readable -printf '%s %P\n' |
    grep -E '^[0-9]+ [A-Za-z0-9._/-]{1,120}$' | grep -vE '\.(/|$)' | LC_ALL=C sort -k 2
}

# copy_files FROM TO: copies what list_usable says on standard input.
copy_files() {
  mkdir -p "$2"
  cut -d ' ' -f 2- | tar -C "$1" --no-recursion --verbatim-files-from -T - -cf - | tar -C "$2" -xf -
}

take_data() {
  if [ -n "$data" ]; then
    list_usable "$data" | head -n 1000 | copy_files "$data" "$1"
    return
  fi
  # Both exist wherever the cross compiler is installed; the first is enough on most systems.
  for folder in /usr/i686-w64-mingw32/lib /usr/lib/gcc/i686-w64-mingw32; do
    list_usable "$folder" | head -n 500 | copy_files "$folder" "$1/$(basename "$folder")"
    if [ "$(count "$1")" -ge 300 ] && [ "$(size "$1")" -ge 67108864 ]; then
      return
    fi
  done
}

count() { find "$1" -type f | wc -l; }
size() { find "$1" -type f -printf '%s\n' | awk '{ sum += $1 } END { print sum + 0 }'; }

# every N REMAINDER: of the game's data files in $source, every Nth.
every() {
  (cd "$source" && find data -type f | LC_ALL=C sort | awk -v n="$1" -v r="$2" 'NR % n == r')
}

# --- what a player would see -----------------------------------------------------------------------------------

# The client's log since the last call to `client_says` or `start_client`.
start_client() {
  : > "$log"
  code=0
  wine_run "$client/Talvex.exe" 'C:\demo\client.log' "$@" > /dev/null || code=$?
}

# Waits for a line of the log that begins like this, and shows the log.
client_says() {
  for _ in $(seq 1200); do
    if grep -q "^$1" "$log"; then
      sed 's/^/   client: /' "$log"
      return
    fi
    sleep 0.1
  done
  sed 's/^/   client: /' "$log"
  echo "   The client did not say: $1"
  return 1
}

exits_with() {
  [ "$code" = "$1" ] || { echo "   The client ended with exit code $code instead of $1."; return 1; }
}

# The lines of a comparison that matter: directories that a release has emptied may stay.
without_empty_directories() {
  while read -r line; do
    directory=$(echo "$line" | sed -n 's|^Only in \(.*\): \(.*\)$|\1/\2|p')
    if [ ! -d "$directory" ] || [ -n "$(find "$directory" -type f | head -n 1)" ]; then
      echo "$line"
    fi
  done
}

# Everything except the updater's own records must match the release, byte for byte.
client_equals() {
  differences=$(diff -r --exclude='.talvex-update*' --exclude='TalvexUpdateState.dat' \
    --exclude='TalvexUpdateFailure.dat' "$place/releases/$1/files" "$client" | without_empty_directories)
  if [ -n "$differences" ]; then
    echo "$differences"
    return 1
  fi
  echo "   diff -r: the client directory equals release $1 ($(count "$place/releases/$1/files") files)."
}

show_state() {
  echo "   Recorded in TalvexUpdateState.dat:"
  sed 's/^/      /' "$client/TalvexUpdateState.dat"
}

publish() {
  TALVEX_WINE_FOLDER=$wine_folder tools/publish.sh "$source" "$place/releases/$1" --release "$1" --sequence "$2" \
    --key "$build/development-key/private.pem" --allow-development ${3:+--old "$place/releases/$3"} | sed 's/^/   /'
}

# --- the story -------------------------------------------------------------------------------------------------

step "Installing what is missing, and building"
tools/setup.sh
mkdir -p "$demo"
cmake --preset mingw-release > "$demo/configure.log" 2>&1 || { cat "$demo/configure.log"; exit 1; }
cmake --build --preset mingw-release --target TalvexUpdateHelper talvex_x64 TalvexPublish DemoHands

step "Starting a Wine of the demo's own, with a display nobody sees"
unset DISPLAY
tools/wine.sh "$wine_folder" start
started=yes
rm -rf "$place" "$picture"
mkdir -p "$place/releases" "$client"
source=$place/source

step "Release 1.0: a 64-bit Talvex.exe, the helper and the game's data"
mkdir -p "$source"
cp "$build/x64/Talvex.exe" "$build/TalvexUpdateHelper.exe" "$source/"
echo "start=ok" > "$source/start.cfg"
take_data "$source/data"
echo "   Data: $(count "$source/data") files, $(($(size "$source/data") / 1048576)) MiB, from ${data:-the cross compiler}"
[ "$(count "$source/data")" -ge 20 ] || { echo "   The demo needs at least 20 usable files."; exit 1; }
if [ -z "$data" ]; then
  [ "$(count "$source/data")" -ge 300 ] && [ "$(size "$source/data")" -ge 67108864 ]
fi
publish 1.0 1

step "Release 1.1: one file in four replaced, some retired, some new in new folders"
every 20 1 | (cd "$source" && xargs -r rm)
every 4 0 | while read -r file; do echo "changed in 1.1" >> "$source/$file"; done
mkdir -p "$source/data/new/nested/folder"
for number in $(seq 20); do echo "new in 1.1: $number" > "$source/data/new/nested/folder/$number.txt"; done
publish 1.1 2 1.0
held=$(every 4 0 | awk '{ line[NR] = $0 } END { print line[int((NR + 1) / 2)] }')

step "Release 1.2: more changes, and a start script that makes the client crash"
every 20 2 | (cd "$source" && xargs -r rm)
every 5 0 | while read -r file; do echo "changed in 1.2" >> "$source/$file"; done
echo "new in 1.2" > "$source/data/new/also.txt"
echo "start=crash" > "$source/start.cfg"
publish 1.2 3 1.1

step "Release 1.3: the same, repaired"
echo "start=ok" > "$source/start.cfg"
publish 1.3 4 1.1
rm -rf "$source"

step "First installation: the directory holds Talvex.exe alone, which installs release 1.0"
cp "$build/x64/Talvex.exe" "$client/"
start_client 'C:\demo\releases\1.0'
exits_with 3
client_says "running 1.0"
client_equals 1.0
show_state

step "Update to 1.1, while a virus scanner holds one of the files for a second"
wine_run "$build/DemoHands.exe" hold "$client/$held" > "$place/held.log" &
scanner=$!
start_client 'C:\demo\releases\1.1'
exits_with 3
for _ in $(seq 600); do
  if grep -q held "$place/held.log"; then
    DISPLAY=:$(cat "$wine_folder/display") import -window root png:- | convert png:- -trim +repage "$picture"
    break
  fi
  sleep 0.05
done
wait $scanner
client_says "running 1.1"
client_equals 1.1
show_state
[ -s "$picture" ]
echo "   The status window in the middle of the update: $picture"

step "Update to 1.2, which cannot start: the client has it rolled back"
start_client 'C:\demo\releases\1.2'
exits_with 3
client_says "rollback started"
echo "   The player sees this, and presses OK:"
wine_run "$build/DemoHands.exe" press-ok | sed 's/^/      /'
client_equals 1.1
show_state
echo "   The failure marker TalvexUpdateFailure.dat names the manifest of release 1.2:"
sed 's/^/      /' "$client/TalvexUpdateFailure.dat"
sha256sum "$place/releases/1.2/manifest.txt" | cut -d ' ' -f 1 | cmp - "$client/TalvexUpdateFailure.dat"

step "Release 1.2 is offered again, and refused"
start_client 'C:\demo\releases\1.2'
exits_with 1
client_says "ERROR: This release could not start here before. A newer release is needed."
client_equals 1.1

step "Update to 1.3, the repaired release"
start_client 'C:\demo\releases\1.3'
exits_with 3
client_says "running 1.3"
client_equals 1.3
show_state

step "Release 1.1 is offered, and refused because it is older"
start_client 'C:\demo\releases\1.1'
exits_with 1
client_says "ERROR: The update server offered an older release. The update was rejected."
client_equals 1.3

step "A plain start, as on every other day"
start_client
exits_with 0
client_says "running 1.3"

step "Everything is put away"
rm -rf "$place/releases"
started=no
tools/wine.sh "$wine_folder" stop

printf '\nSUCCESS: first installation, update, broken release, rollback, repaired release; every tree byte for byte.\n'
echo "Picture of the status window: $picture"
echo "The client directory: $client"
