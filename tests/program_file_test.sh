#!/bin/sh
# The programs' files as Windows' loader sees them: program_file_test.sh SOURCE_FOLDER BUILD_FOLDER CONFIGURATION
. "$(dirname "$0")/support/checks.sh"
build=$2
helper=$build/TalvexUpdateHelper.exe

# The 64-bit tools read files of both architectures.
x86_64-w64-mingw32-objdump -p "$helper" | tr -s '[:blank:]' ' ' > "$work/headers"
x86_64-w64-mingw32-windres -J coff -O rc "$helper" "$work/resources"

# Windows takes these from System32 whatever lies beside the program (its "known DLLs").
imports_known_dlls_alone() {
  x86_64-w64-mingw32-objdump -p "$build/$1" | sed -n 's/^.*DLL Name: //p' > "$work/imports"
  [ -s "$work/imports" ] && ! grep -vixE '(kernel32|user32|gdi32|advapi32|shell32|ole32|msvcrt)\.dll' "$work/imports"
}

asks_for_no_elevation() {
  x86_64-w64-mingw32-windres -J coff -O rc "$1" 2> /dev/null | tr -d '"' > "$work/manifest"
  grep -q '^1 24 ' "$work/manifest" && grep -qF level=asInvoker "$work/manifest"
}

# says FILE TEXT...: every text is in the file.
says() {
  file=$1
  shift
  for text in "$@"; do
    grep -qF -- "$text" "$file" || { echo "missing: $text"; cat "$file"; return 1; }
  done
}

if [ "$3" = Release ]; then
  case $(i686-w64-mingw32-g++-posix -dumpversion) in
    [0-9]-* | [0-9].* | 1[0-2]*) limit=320 ;;
    *) limit=360 ;;  # the libraries of newer compilers are larger
  esac
  size=$(wc -c < "$helper")
  check "the helper's $size bytes are at most $limit KiB" test "$size" -le $((limit * 1024))
fi
for program in TalvexUpdateHelper.exe Talvex.exe TalvexPublish.exe TalvexUpdate.dll x64/TalvexUpdate.dll; do
  check "$program imports known DLLs alone" imports_known_dlls_alone "$program"
done
find "$build" -name '*.exe' -not -path '*/wine/*' -not -path '*/CMakeFiles/*' > "$work/programs"
while read -r program; do
  check "${program##*/} asks for no elevation" asks_for_no_elevation "$program"
done < "$work/programs"
check "the helper is a GUI program for Windows 7 or newer" says "$work/headers" \
  'Subsystem 00000002' 'MajorSubsystemVersion 6' 'MinorSubsystemVersion 1'
check "its data is not executable and its place is random" says "$work/headers" 'DllCharacteristics 00000140'
check "it can be moved" grep '^Entry 5 [0-9a-f]* 0*[1-9a-f]' "$work/headers"
check "its manifest asks for common controls 6 and names Windows 7 to 11" says "$work/resources" \
  'Microsoft.Windows.Common-Controls"" version=""6.0.0.0' 'dpiAware' '>false<' 'gdiScaling' \
  35138b9a-5d96-4fbd-8e2d-a2440225f93a 4a2f28e3-53b9-4441-ba9c-d69d4a4a6e38 \
  1f676c76-80e1-4239-95bb-83d0f6d0da78 8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a
check "its version resource names it" says "$work/resources" '"OriginalFilename", "TalvexUpdateHelper.exe"' \
  '"FileDescription", "Talvex Update Helper"' '"ProductVersion", "'
finish_checks
