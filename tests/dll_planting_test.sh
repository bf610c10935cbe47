#!/bin/sh
# A DLL planted beside the helper is never loaded: dll_planting_test.sh SOURCE_FOLDER BUILD_FOLDER
. "$(dirname "$0")/support/checks.sh"
source=$1
build=$2

# Not among them: version.dll and imm32.dll, which Wine's own shell32 and user32 load before the entry runs.
names='bcrypt comctl32 uxtheme dwmapi cryptbase bcryptprimitives ncrypt'
for name in $names; do
  cp "$build/tests/planted_dll.dll" "$work/$name.dll"
done
cp "$build/TalvexUpdateHelper.exe" "$build/tests/dll_probe.exe" "$work"

{
  printf 'TALVEX-UPDATE-V1\nrelease\t1.0\nsequence\t1\n'
  printf 'file\t1\t%064d\tTalvex.exe\n' 0
} > "$work/manifest.txt"
openssl dgst -sha256 -sign "$build/development-key/private.pem" -out "$work/manifest.sig" "$work/manifest.txt"

# Wine prefers its own DLLs to those beside a program; Windows does not, and neither does this.
run() {
  (cd "$work" && WINEDLLOVERRIDES="$(echo "$names" | tr ' ' ,)=n,b" \
    "$source/tools/wine.sh" "$build/wine" run "$@")
}

loads_planted() {
  name=$1
  shift
  run "$@"
  [ -e "$work/$name.dll.loaded" ] || { ls "$work"; return 1; }
}

# Each name but bcrypt and comctl32 is a DLL that a system may load or not; none may come from here.
loads_nothing_planted() {
  rm -f "$work"/*.loaded
  run "$@" > "$work/output" || { echo "exit code $?"; return 1; }
  cat "$work/output"
  ! ls "$work"/*.loaded
}

check_helper_output() {
  tr -d '\r' < "$work/output" | grep -qxF 'OK release=1.0 sequence=1 files=1'
}

# First, that these DLLs would be loaded: a test that cannot fail proves nothing.
check "without the restriction a planted bcrypt.dll is loaded" loads_planted bcrypt dll_probe.exe unguarded hash
check "without the restriction a planted comctl32.dll is loaded" \
  loads_planted comctl32 dll_probe.exe unguarded window
check "the helper checks a manifest without a planted DLL" \
  loads_nothing_planted TalvexUpdateHelper.exe --verify-manifest manifest.txt manifest.sig
check "the helper found the manifest valid meanwhile" check_helper_output
check "the status window opens without a planted DLL" loads_nothing_planted dll_probe.exe guarded window
finish_checks
