#!/bin/sh
# The helper's file as Windows' loader sees it: program_file_test.sh SOURCE_FOLDER BUILD_FOLDER CONFIGURATION
. "$(dirname "$0")/support/checks.sh"
build=$2
configuration=$3
helper=$build/TalvexUpdateHelper.exe

i686-w64-mingw32-objdump -p "$helper" > "$work/headers"
i686-w64-mingw32-windres -J coff -O rc "$helper" "$work/resources"

has_at_most() {
  size=$(wc -c < "$helper")
  echo "it has $size"
  [ "$size" -le "$1" ]
}

# Windows takes these from System32 whatever lies beside the program (its "known DLLs").
imports_known_dlls_alone() {
  imports=$(i686-w64-mingw32-objdump -p "$build/$1.exe" | sed -n 's/^.*DLL Name: //p' | tr A-Z a-z)
  echo "$imports"
  [ -n "$imports" ] || return 1
  for import in $imports; do
    case $import in
      kernel32.dll | user32.dll | gdi32.dll | advapi32.dll | shell32.dll | ole32.dll | msvcrt.dll) ;;
      *) return 1 ;;
    esac
  done
}

header() {
  grep -q "^$1[[:space:]]*$2" "$work/headers" || { grep "^$1" "$work/headers"; return 1; }
}

resources_say() {
  for text in "$@"; do
    grep -qF -- "$text" "$work/resources" || { echo "missing: $text"; cat "$work/resources"; return 1; }
  done
}

every_program_asks_for_no_elevation() {
  programs=$(find "$build" -name '*.exe' -not -path '*/wine/*' -not -path '*/CMakeFiles/*')
  [ -n "$programs" ] || return 1
  for program in $programs; do
    i686-w64-mingw32-windres -J coff -O rc "$program" 2> /dev/null | tr -d '"' > "$work/manifest"
    if ! grep -q '^1 24 ' "$work/manifest" || ! grep -qF 'level=asInvoker' "$work/manifest"; then
      echo "$program has no such manifest"
      return 1
    fi
  done
}

if [ "$configuration" = Release ]; then
  # The libraries of newer compilers are larger.
  case $(i686-w64-mingw32-g++-posix -dumpversion) in
    [0-9]-* | [0-9].* | 1[0-2]*) check "the helper has at most 320 KiB" has_at_most 327680 ;;
    *) check "the helper has at most 360 KiB" has_at_most 368640 ;;
  esac
fi
for program in TalvexUpdateHelper Talvex TalvexPublish; do
  check "$program imports known DLLs alone" imports_known_dlls_alone "$program"
done
check "it is a GUI program" header Subsystem 00000002
check "it asks for a Windows of major version 6" header MajorSubsystemVersion 6
check "it asks for no newer one than Windows 7" header MinorSubsystemVersion 1
check "its data is not executable and its place is random" header DllCharacteristics 00000140
check "it can be moved" header "Entry 5 [0-9a-f]*" "0*[1-9a-f]"
check "its manifest asks for common controls 6" \
  resources_say 'Microsoft.Windows.Common-Controls"" version=""6.0.0.0' 'dpiAware' '>false<' 'gdiScaling'
check "its manifest names Windows 7 to 11" resources_say 35138b9a-5d96-4fbd-8e2d-a2440225f93a \
  4a2f28e3-53b9-4441-ba9c-d69d4a4a6e38 1f676c76-80e1-4239-95bb-83d0f6d0da78 8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a
check "its version resource names it" resources_say '"OriginalFilename", "TalvexUpdateHelper.exe"' \
  '"FileDescription", "Talvex Update Helper"' '"ProductVersion", "'
check "every program asks for no elevation" every_program_asks_for_no_elevation
finish_checks
