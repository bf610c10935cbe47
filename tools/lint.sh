#!/bin/sh
# Format and static checks, to be run by hand before a commit: tools/lint.sh [FILE...] (default: all sources).
# Needs clang-format, clang-tidy, cppcheck and shellcheck, and a configured build/mingw-release.
set -eu
cd "$(dirname "$0")/.."
preset=mingw-release
build=build/$preset

for tool in clang-format clang-tidy cppcheck shellcheck; do
  command -v $tool > /dev/null || { echo "lint: install $tool first (apt-get install $tool)" >&2; exit 1; }
done
cmake --preset $preset -DTALVEX_BENCHMARKS=ON > /dev/null 2>&1

if [ $# = 0 ]; then
  # No file name of the project contains a blank. The fuzzer's own files are not Windows sources:
  # tools/fuzz.sh compiles them for the host.
  # shellcheck disable=SC2046
  set -- $(git ls-files --cached --others --exclude-standard -- '*.cpp' '*.h' '*.c' '*.sh' .ci/run ':!fuzz')
fi
scripts=
headers=
sources=
for file in "$@"; do
  case $file in
    *.sh | .ci/run) scripts="$scripts $file" ;;
    *.h) headers="$headers $file" ;;
    *) sources="$sources $file" ;;
  esac
done
status=0
# Runs a tool and continues after a failure, so that one run shows everything.
run() {
  echo "lint: $1"
  shift
  "$@" || status=1
}

# The lists are meant to be split.
# shellcheck disable=SC2086
{
  [ -z "$scripts" ] || run shellcheck shellcheck --severity=warning $scripts
  [ -z "$headers$sources" ] || run clang-format clang-format --dry-run --Werror $headers $sources
  # Left out: suggestions to use an algorithm instead of a plain loop, and a check that does not understand
  # structured bindings.
  [ -z "$sources" ] || run cppcheck cppcheck --quiet --std=c++20 --language=c++ --platform=win32W -I. \
    --enable=warning,performance,portability,style --inline-suppr --error-exitcode=1 -DUNICODE -D_WIN32 \
    --library=googletest --suppress=danglingTemporaryLifetime:tests/* --suppress=missingIncludeSystem --suppress=useStlAlgorithm --suppress=unusedStructMember $sources
  if [ -n "$sources" ]; then
    # clang finds the Windows headers of MinGW by itself, but not the standard library.
    library=$(i686-w64-mingw32-g++-posix -E -x c++ -v /dev/null 2>&1 |
      sed -n 's|^ \(/.*/include/c++.*\)|--extra-arg=-stdlib++-isystem\1|p')
    echo $sources | tr ' ' '\n' > $build/lint-sources
    run clang-tidy xargs --max-procs=2 --max-args=4 clang-tidy -p $build --quiet \
      --extra-arg=--target=i686-w64-windows-gnu $library < $build/lint-sources \
      2> $build/lint.log  # only the number of suppressed warnings, no findings
  fi
}
exit $status
