#!/bin/sh
# Programs with an Authenticode signature, from the signing to the players:
# authenticode_test.sh SOURCE_FOLDER BUILD_FOLDER CONFIGURATION
. "$(dirname "$0")/support/checks.sh"
source=$1
build=$2
export TALVEX_BUILD="$build" TALVEX_WINE_FOLDER="$build/wine"
public_key="Z:$build/development-key/public.pem"
install=$work/install

sign() {  # PROGRAM DESCRIPTION
  osslsigncode sign -certs "$work/code.crt" -key "$work/code.pem" -n "$2" -in "$1" -out "$work/signed" &&
    mv "$work/signed" "$1"
}
run() { "$source/tools/wine.sh" "$build/wine" run "$@"; }
publish() {  # NUMBER OPTION...: of what is in the folder client
  number=$1
  shift
  "$source/tools/publish.sh" "$work/client" "$work/release-$number" --release "$number.0" --sequence "$number" \
    --key "$build/development-key/private.pem" --allow-development "$@"
}
verify() { run "$build/TalvexPublish.exe" verify "Z:$work/release-2" --key "$public_key" --allow-development; }
status() { run "$build/TalvexPublish.exe" status "Z:$install" --key "$public_key"; }
install_as_an_installer_does() {
  cp -r "$work/release-1/files" "$install" && mkdir "$install/.talvex-update-cache" &&
    cp "$work/release-1/manifest.txt" "$work/release-1/manifest.sig" "$install/.talvex-update-cache/" &&
    digest=$(sha256sum "$work/release-1/manifest.txt" | cut -d ' ' -f 1) &&
    printf 'TALVEX-UPDATE-STATE-V1\nsequence\t1\nrelease\t1.0\nmanifest-sha256\t%s\n' "$digest" \
      > "$install/TalvexUpdateState.dat" && status
}
update() {
  run "$install/Talvex.exe" "Z:$work/log" "Z:$work/release-2"
  test $? = 3 || return 1  # the helper has been started
  for _ in $(seq 300); do
    ! grep -q 'running 2.0' "$work/log" || return 0
    sleep 0.1
  done
  cat "$work/log"
  return 1
}
is_signed() { osslsigncode verify -CAfile "$work/code.crt" -in "$install/$1"; }
is_the_build_without_its_signature() {
  osslsigncode remove-signature -in "$install/$1" -out "$work/plain" && cmp "$work/plain" "$build/$1"
  result=$?
  rm -f "$work/plain"
  return $result
}

mkdir "$work/client"
cp "$build/Talvex.exe" "$build/TalvexUpdateHelper.exe" "$work/client"
openssl req -x509 -newkey rsa:3072 -nodes -subj "/CN=Test" -addext extendedKeyUsage=codeSigning \
  -keyout "$work/code.pem" -out "$work/code.crt" 2> /dev/null
for release in 1 2; do
  for program in Talvex.exe TalvexUpdateHelper.exe; do
    cp "$build/$program" "$work/client"
    check "$program is signed for release $release" sign "$work/client/$program" "Release $release"
  done
  check "release $release is made of signed programs" publish "$release" \
    ${old:+--old "$old"}
  old=$work/release-$release
done
check "it is a good one" verify
check "an installer puts the first release down" install_as_an_installer_does
check "its signed client and helper install the second" update
check "that is what is installed" status
for program in Talvex.exe TalvexUpdateHelper.exe; do
  check "the signature of $program has survived" is_signed "$program"
  check "$program without it is the build" is_the_build_without_its_signature "$program"
done
check "a program is signed again, after the release was described" sign "$work/release-2/files/Talvex.exe" Again
check "the release is refused" refuses "Talvex.exe: is not the file that the manifest describes." verify
finish_checks
