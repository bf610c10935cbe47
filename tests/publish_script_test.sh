#!/bin/sh
# tools/publish.sh: what it refuses, and that it leaves nothing behind then:
# publish_script_test.sh SOURCE_FOLDER BUILD_FOLDER CONFIGURATION
. "$(dirname "$0")/support/checks.sh"
source=$1
build=$2
export TALVEX_BUILD="$build" TALVEX_WINE_FOLDER="$build/wine" TMPDIR="$work/temporary place"
key=$build/development-key/private.pem
other_key=$build/fixtures/other-key

publish() {  # RELEASE_DIR OPTION...
  release=$1
  shift
  "$source/tools/publish.sh" "$work/my client" "$release" --release 1.0 --key "$key" --allow-development "$@"
}
nothing_is_left() {
  test -z "$(find "$TMPDIR" -name 'tmp.*')" && test ! -e "$work/out" && test -z "$(find "$work" -name 'out.*')"
}
is_whole() {
  cmp "$work/my client/data/1" "$work/first/files/data/1" &&
    openssl dgst -sha256 -verify "$build/development-key/public.pem" -signature "$work/first/manifest.sig" \
      "$work/first/manifest.txt"
}

mkdir -p "$TMPDIR" "$work/my client/data"
cp "$build/Talvex.exe" "$build/TalvexUpdateHelper.exe" "$work/my client"
echo 1 > "$work/my client/data/1"
check "a release is published" publish "$work/first" --sequence 5
check "it is whole and signed" is_whole
check "a release is never written over" refuses "first exists already" publish "$work/first" --sequence 6
check "nor written into the client" refuses "lies inside the client" publish "$work/my client/out" --sequence 6
check "an option that it does not know is refused" refuses "publish.sh CLIENT_DIR" publish "$work/out" --sequenze 2
check "a number that was used is refused before the key signs" refuses "older release. The update was rejected." \
  publish "$work/out" --sequence 4 --old "$work/first"
check "an older release that is not there is refused" refuses "No such file" \
  publish "$work/out" --sequence 6 --old "$work/missing"
check "a client without the next key is refused" refuses "could follow no release that is signed with the other key" \
  publish "$work/out" --sequence 6 --client-key "$other_key/public.pem"
check "a public key of another pair is refused" refuses "Helper.exe: trusts another key" \
  publish "$work/out" --sequence 6 --public-key "$other_key/public.pem"
ln -s /etc/hostname "$work/my client/data/link"
check "a link is refused" refuses "cannot hold symbolic links: ./data/link" publish "$work/out" --sequence 6
rm "$work/my client/data/link"
check "nothing is left of what was refused" nothing_is_left
check "the next release is compared with each older one" publish "$work/out" --sequence 6 --release 1.1 \
  --old "$work/first" --old "$work/first"
finish_checks
