#!/bin/sh
# Builds for players: release_build_test.sh SOURCE_FOLDER BUILD_FOLDER CONFIGURATION
. "$(dirname "$0")/support/checks.sh"
source=$1
build=$2
configuration=$3

# A copy of the sources in another place: built first with this build's key pair as its own development key, and
# then with the public half alone, as a publisher does.
elsewhere="$work/another place/talvex"
configure_elsewhere() {
  cmake -S "$elsewhere" -B "$elsewhere/out" -G Ninja "--toolchain=$elsewhere/cmake/mingw-i686.cmake" \
    "-DCMAKE_BUILD_TYPE=$configuration" "$@" &&
    cmake --build "$elsewhere/out" --parallel 2 --target TalvexUpdateHelper
}
build_elsewhere() {
  mkdir -p "$elsewhere/out" &&
    (cd "$source" && tar -c --exclude=./build --exclude=./.git .) | tar -x -C "$elsewhere" &&
    cp -r "$build/development-key" "$elsewhere/out/" && configure_elsewhere
}
counts_development_keys() {  # FILE COUNT: the version resource names COUNT of them
  i686-w64-mingw32-windres -J coff -O rc "$1" "$work/version" &&
    test "$(grep -c 'Trusts a development key' "$work/version")" = "$2"
}
packs() {  # COMPONENT FILE...: these and no other files are in its archive
  component=$1
  shift
  cpack --config "$build/CPackConfig.cmake" -C "$configuration" -B "$work/packed" \
    -D "CPACK_COMPONENTS_ALL=$component" &&
    cmake -E tar tf "$work/packed"/TalvexUpdate-*-"$component".zip | grep -v '/$' | LC_ALL=C sort > "$work/list" &&
    printf '%s\n' "$@" | LC_ALL=C sort | diff - "$work/list"
}
publish_elsewhere() {
  rm "$elsewhere/out/CTestTestfile.cmake"
  configure_elsewhere "-DTALVEX_UPDATE_PUBLIC_KEY=$build/development-key/public.pem"
}

code_of() { (cd "$1" && x86_64-w64-mingw32-objdump -s -j .text "$2"); }  # of both architectures, with its addresses
symbols_are_of_its_code() {  # FOLDER FILE
  code_of "$1" "$2" > "$work/code" && code_of "$1/unstripped" "$2" | cmp - "$work/code"
}
symbols_name_last_export() {  # DLL
  x86_64-w64-mingw32-objdump -p "$1" > "$work/headers"
  base=$(awk '$1 == "ImageBase" { print $2 }' "$work/headers")
  offset=$(awk '/Export RVA$/ { offset = $(NF - 2) } END { print offset }' "$work/headers")
  x86_64-w64-mingw32-addr2line -f -e "$1.debug" "$(printf %x $((0x$base + 0x$offset)))" > "$work/place"
  grep '^talvex_stage' "$work/place" && grep 'client/talvex_update\.cpp:[1-9]' "$work/place"
}

refusal='This build trusts a development key: no release can be made from it.'
for component in helper symbols; do
  check "the component $component is not installed from a build with a development key" \
    refuses "$refusal" cmake --install "$build" --component $component --prefix "$work/refused"
done
check "no release is packed from a build with a development key" \
  refuses "$refusal" cpack --config "$build/CPackConfig.cmake" -B "$work/package"
check "nothing was installed or packed meanwhile" \
  test ! -e "$work/refused" -a -z "$(find "$work/package" -name '*.zip' -o -name '*.exe')"
check "the publisher's tool is packed with what it is used with" \
  packs publisher TalvexPublish.exe publish.sh releasing.md
cmake_files=lib/cmake/TalvexUpdate/TalvexUpdateConfig
lower=$(printf %s "$configuration" | tr '[:upper:]' '[:lower:]')
check "the library is packed for every compiler" \
  packs library bin/TalvexUpdate.dll include/talvex_update.h lib/TalvexUpdate.def lib/libTalvexUpdate.dll.a \
  lib/libTalvexUpdateStatic.a $cmake_files-$lower.cmake $cmake_files.cmake ${cmake_files}Version.cmake
check "a build in another folder succeeds" build_elsewhere
check "it makes the same bytes" cmp "$elsewhere/out/TalvexUpdateHelper.exe" "$build/TalvexUpdateHelper.exe"
check "a helper with a development key says so" counts_development_keys "$elsewhere/out/TalvexUpdateHelper.exe" 1
check "a build with a given key succeeds" publish_elsewhere
check "its helper does not say so" counts_development_keys "$elsewhere/out/TalvexUpdateHelper.exe" 0
check "it has no tests, which would need the private key" test ! -e "$elsewhere/out/CTestTestfile.cmake"
check "a release is installed from it" \
  cmake --install "$elsewhere/out" --component helper --prefix "$work/release"
check "it is the helper alone" test "$(ls "$work/release")" = TalvexUpdateHelper.exe
if [ "$configuration" = Release ]; then
  for file in TalvexUpdateHelper.exe TalvexPublish.exe TalvexUpdate.dll x64/TalvexUpdate.dll; do
    folder=$(dirname "$build/$file")
    check "the symbols of $file are those of its code" symbols_are_of_its_code "$folder" "${file##*/}"
  done
  for dll in TalvexUpdate.dll x64/TalvexUpdate.dll; do
    check "the symbols of $dll name what it exports" symbols_name_last_export "$build/$dll"
  done
fi
finish_checks
