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
  test "$(cat "$work/first/files/data/1")" = 1 && test "$(cat "$work/my client/data/1")" = exchanged &&
    openssl dgst -sha256 -verify "$build/development-key/public.pem" -signature "$work/first/manifest.sig" \
      "$work/first/manifest.txt"
}

# In place of openssl, where it is about to sign: exchanges every manifest and client that others can reach, as
# somebody who waits for that moment would, and signs only what lies in a folder that nobody else can enter.
cat > "$work/openssl" << 'END'
#!/bin/sh
case " $* " in
  *" -sign "*)
    for manifest; do :; done
    private=${manifest#"$TMPDIR"/}
    private=$TMPDIR/${private%%/*}
    echo exchanged > "$CLIENT/data/1"
    find "$WORK" -path "$private" -prune -o -name manifest.txt -exec sh -c 'echo exchanged > "$1"' - '{}' ';'
    test "$(stat -c %a "$private")" = 700 && test -O "$private" || exit 1
    echo signed >> "$SIGNED"
    ;;
esac
exec "$OPENSSL" "$@"
END
chmod +x "$work/openssl"
OPENSSL=$(command -v openssl)
export OPENSSL WORK="$work" CLIENT="$work/my client" SIGNED="$work/signed" PATH="$work:$PATH"
signed_once() {
  test "$(wc -l < "$SIGNED")" = 1
}

mkdir -p "$TMPDIR" "$work/my client/data"
cp "$build/Talvex.exe" "$build/TalvexUpdateHelper.exe" "$work/my client"
echo 1 > "$work/my client/data/1"
check "a release is published" publish "$work/first" --sequence 5
check "it is whole and signed, although the client was exchanged before the key signed" is_whole
check "a release is never written over" refuses "first exists already" publish "$work/first" --sequence 6
check "nor written into the client" refuses "lies inside the client" publish "$work/my client/out" --sequence 6
check "an option that it does not know is refused" refuses "publish.sh CLIENT_DIR" publish "$work/out" --sequenze 2
check "a number that was used is refused" refuses "older release. The update was rejected." \
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
mkdir -p "$work/my client/Data"
echo 2 > "$work/my client/Data/2"
check "directories that are the same to Windows are refused" refuses "only in the case of letters" \
  publish "$work/out" --sequence 6
rm -r "$work/my client/Data"
check "nothing is left of what was refused" nothing_is_left
check "the key has signed none of it" signed_once
check "the next release is compared with each older one" publish "$work/out" --sequence 6 --release 1.1 \
  --old "$work/first" --old "$work/first"
finish_checks
