#!/bin/sh
# Publishes a client directory as a signed release, on Linux:
#
#   tools/publish.sh CLIENT_DIR RELEASE_DIR --release ID --sequence N --key PRIVATE.pem
#
# makes RELEASE_DIR, which must not exist yet, with manifest.txt, manifest.sig and the described files in
# files/. Needs a build (build/mingw-release, or the folder that TALVEX_BUILD names), Wine and openssl.
# Windows programs run in the Wine of the environment, or in that of tools/wine.sh when TALVEX_WINE_FOLDER
# names its folder.
set -eu
export LC_ALL=C.UTF-8  # in a locale without UTF-8, Wine cannot find folders with names beyond ASCII

root=$(cd "$(dirname "$0")/.." && pwd)
build=${TALVEX_BUILD:-$root/build/mingw-release}

fail() {
  echo "publish: $*" >&2
  exit 1
}

usage() {
  sed -n '2,/^set/s/^# \{0,1\}//p' "$0" >&2
  exit 2
}

publisher() {
  if [ -n "${TALVEX_WINE_FOLDER:-}" ]; then
    "$root/tools/wine.sh" "$TALVEX_WINE_FOLDER" run "$build/TalvexPublish.exe" "$@"
  else
    wine "$build/TalvexPublish.exe" "$@"
  fi
}

[ $# -ge 2 ] || usage
client=$1
release=$2
shift 2
release_id=
sequence=
key=
while [ $# -ge 2 ]; do
  case $1 in
    --release) release_id=$2 ;;
    --sequence) sequence=$2 ;;
    --key) key=$2 ;;
    *) usage ;;
  esac
  shift 2
done
if [ $# != 0 ] || [ -z "$release_id" ] || [ -z "$sequence" ] || [ -z "$key" ]; then
  usage
fi

[ -e "$build/TalvexPublish.exe" ] || fail "there is no $build/TalvexPublish.exe: build first"
[ -d "$client" ] || fail "$client is not a directory"
[ ! -e "$release" ] || fail "$release exists already; a release is never written over"
client=$(cd "$client" && pwd)
mkdir -p "$(dirname "$release")"
release=$(cd "$(dirname "$release")" && pwd)/$(basename "$release")

# Windows programs see such a link as the file that it points to, and would publish that file.
links=$(find "$client" -type l)
[ -z "$links" ] || fail "a release cannot hold symbolic links:
$links"

# Under another name until it is complete: an interrupted run leaves nothing that looks like a release.
making=$release.making
rm -rf "$making"
mkdir -p "$making/files"
publisher manifest --release "$release_id" --sequence "$sequence" --out "Z:$making" "Z:$client"
openssl dgst -sha256 -sign "$key" -out "$making/manifest.sig" "$making/manifest.txt"
openssl pkey -in "$key" -pubout -out "$making/public.pem"
publisher verify "Z:$making" --public-key "Z:$making/public.pem"
rm "$making/public.pem"

tab=$(printf '\t')
sed -n "s/^file${tab}[^$tab]*${tab}[^$tab]*${tab}//p" "$making/manifest.txt" |
  tar -C "$client" --no-recursion --verbatim-files-from -T - -cf - |
  tar -C "$making/files" -xf -
# The tree could have changed since it was hashed.
sed -n "s/^file${tab}[^$tab]*${tab}\([^$tab]*\)${tab}/\1  /p" "$making/manifest.txt" |
  (cd "$making/files" && sha256sum --quiet --check -) || fail "the client directory changed while it was published"
mv "$making" "$release"
echo "Published $release"
