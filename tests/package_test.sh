#!/bin/sh
# The update library as the build of a game gets it: package_test.sh SOURCE_FOLDER BUILD_FOLDER CONFIGURATION
. "$(dirname "$0")/support/checks.sh"
source=$1
build=$2

# A game in C++ with the DLL, word for word as in the README, built and installed with the lines of the guide, and a
# tool in C with the static library.
mkdir "$work/game"
awk '/^```/ { if (inside) exit; inside = $0 == "```cpp"; next } inside' "$source/README.md" > "$work/game/game.cpp"
awk '/^```/ { inside = 0 } /^add_custom_command\(TARGET Talvex / { inside = 1 } inside' "$source/docs/integration.md" \
  > "$work/game/dll.cmake"
cp "$source/tests/programs/readme_server.cpp" "$build/generated/keys/trusted_keys.h" "$work/game"
cat > "$work/game/tool.c" << 'END'
#include <talvex_update.h>
int main(void) { return talvex_open(NULL, NULL) == TALVEX_E_ARGUMENT ? 0 : 1; }
END
cat > "$work/game/CMakeLists.txt" << 'END'
cmake_minimum_required(VERSION 3.25)
project(Game LANGUAGES ${LANGUAGES})
if(TALVEX_SOURCE)
  add_subdirectory("${TALVEX_SOURCE}" talvex)
else()
  find_package(TalvexUpdate 1 REQUIRED)
endif()
if("CXX" IN_LIST LANGUAGES)
  add_executable(Talvex game.cpp readme_server.cpp)
  target_compile_features(Talvex PRIVATE cxx_std_20)
  target_link_libraries(Talvex PRIVATE TalvexUpdate::client)
  include(dll.cmake)
endif()
if("C" IN_LIST LANGUAGES)
  add_executable(tool tool.c)
  target_link_libraries(tool PRIVATE TalvexUpdate::client_static)
endif()
END

# build_game NAME LANGUAGES OPTION...
build_game() {
  out=$work/$1
  languages=$2
  shift 2
  cmake -S "$work/game" -B "$out" -G Ninja "--toolchain=$source/cmake/mingw-$processor.cmake" \
    "-DLANGUAGES=$languages" "$@" &&
    cmake --build "$out" --parallel 2
}

# Lines of the table begin with a number in brackets; newer versions print a heading above them.
exports_what_the_header_declares() {
  sed -n 's/^TALVEX_UPDATE_API .*TALVEX_CALL \([a-z_]*\)(.*/\1/p' "$source/client/talvex_update.h" |
    LC_ALL=C sort > "$work/declared"
  x86_64-w64-mingw32-objdump -p "$1" |
    awk '/^\[Ordinal\/Name Pointer\]/ { on = 1; next } /^$/ { on = 0 } on && /\[/ { print $NF }' > "$work/exported"
  [ "$(wc -l < "$work/declared")" -gt 5 ] && diff "$work/declared" "$work/exported"
}

# What Visual Studio makes its import library from.
def_lists_the_exports() { sed '1,/^EXPORTS$/d; s/^ *//' "$1" | LC_ALL=C sort | diff "$work/exported" -; }

# holds_game FOLDER: the game with its DLL is at the top of this folder.
holds_game() { [ -s "$1/Talvex.exe" ] && cmp "$1/TalvexUpdate.dll" "$work/$processor/bin/TalvexUpdate.dll"; }

asks_for_the_dll() { x86_64-w64-mingw32-objdump -p "$1" | grep 'DLL Name: TalvexUpdate\.dll$'; }
runs() { "$source/tools/wine.sh" "$build/wine" run "$1"; }

check "the 32-bit library is installed" cmake --install "$build" --component library --prefix "$work/i686"
check "the 64-bit library is installed" cmake --install "$build/x64" --component library --prefix "$work/x86_64"
for processor in i686 x86_64; do
  package=-DCMAKE_PREFIX_PATH=$work/$processor
  check "$processor: the DLL exports what the header declares" \
    exports_what_the_header_declares "$work/$processor/bin/TalvexUpdate.dll"
  check "$processor: so does the .def file" def_lists_the_exports "$work/$processor/lib/TalvexUpdate.def"
  check "$processor: the README's client builds with the package" build_game "$processor-game" CXX "$package"
  check "$processor: it asks for the DLL" asks_for_the_dll "$work/$processor-game/Talvex.exe"
  check "$processor: the DLL lies beside it" holds_game "$work/$processor-game"
  check "$processor: the game is installed" cmake --install "$work/$processor-game" --prefix "$work/$processor-ours"
  check "$processor: the DLL lies beside it there" holds_game "$work/$processor-ours"
  check "$processor: a tool in C builds with the package" build_game "$processor-tool" C "$package"
  check "$processor: it runs without any DLL" runs "$work/$processor-tool/tool.exe"
  check "$processor: both build with the sources" build_game "$processor-whole" "C;CXX" "-DTALVEX_SOURCE=$source"
  check "$processor: the game is installed from there" \
    cmake --install "$work/$processor-whole" --prefix "$work/$processor-players"
  check "$processor: it is the game with the DLL and nothing else" \
    test "$(ls -R "$work/$processor-players" | sed 1d | xargs)" = "Talvex.exe TalvexUpdate.dll"
done
check "a package of the wrong architecture is not taken" \
  refuses "(32bit)" build_game wrong CXX "-DCMAKE_PREFIX_PATH=$work/i686"
finish_checks
