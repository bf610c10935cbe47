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
publish_elsewhere() {
  rm "$elsewhere/out/CTestTestfile.cmake"
  configure_elsewhere "-DTALVEX_UPDATE_PUBLIC_KEY=$build/development-key/public.pem"
}

refusal='This build trusts a development key: no release can be made from it.'
check "no release is installed from a build with a development key" \
  refuses "$refusal" cmake --install "$build" --component helper --prefix "$work/refused"
check "no release is packed from a build with a development key" \
  refuses "$refusal" cpack --config "$build/CPackConfig.cmake" -B "$work/package"
check "nothing was installed or packed meanwhile" \
  test ! -e "$work/refused" -a -z "$(find "$work/package" -name '*.zip' -o -name '*.exe')"
check "a build in another folder succeeds" build_elsewhere
check "it makes the same bytes" cmp "$elsewhere/out/TalvexUpdateHelper.exe" "$build/TalvexUpdateHelper.exe"
check "a helper with a development key says so" counts_development_keys "$elsewhere/out/TalvexUpdateHelper.exe" 1
check "a build with a given key succeeds" publish_elsewhere
check "its helper does not say so" counts_development_keys "$elsewhere/out/TalvexUpdateHelper.exe" 0
check "it has no tests, which would need the private key" test ! -e "$elsewhere/out/CTestTestfile.cmake"
check "a release is installed from it" \
  cmake --install "$elsewhere/out" --component helper --prefix "$work/release"
check "it is the helper alone" test "$(ls "$work/release")" = TalvexUpdateHelper.exe
finish_checks
