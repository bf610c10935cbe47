#!/bin/sh
# Programs with an Authenticode signature: authenticode_test.sh SOURCE_FOLDER BUILD_FOLDER CONFIGURATION
. "$(dirname "$0")/support/checks.sh"
source=$1
build=$2
export TALVEX_BUILD="$build" TALVEX_WINE_FOLDER="$build/wine"

sign() {  # PROGRAM DESCRIPTION
  osslsigncode sign -certs "$work/code.crt" -key "$work/code.pem" -n "$2" -in "$1" -out "$work/signed" &&
    mv "$work/signed" "$1"
}
run() { "$source/tools/wine.sh" "$build/wine" run "$@"; }
verify() {
  run "$build/TalvexPublish.exe" verify "Z:$work/release" --key "Z:$build/development-key/public.pem" --allow-development
}

mkdir "$work/client"
cp "$build/Talvex.exe" "$build/TalvexUpdateHelper.exe" "$work/client"
openssl req -x509 -newkey rsa:3072 -nodes -subj "/CN=Test" -addext extendedKeyUsage=codeSigning \
  -keyout "$work/code.pem" -out "$work/code.crt" 2> /dev/null
for program in Talvex.exe TalvexUpdateHelper.exe; do
  check "$program is signed" sign "$work/client/$program" Talvex
done
check "the signed helper runs" run "$work/client/TalvexUpdateHelper.exe" --validate-path data/models.pak
check "a release is made of signed programs" "$source/tools/publish.sh" "$work/client" "$work/release" \
  --release 1.0 --sequence 1 --key "$build/development-key/private.pem" --allow-development
check "it is a good one" verify
check "a program is signed again, after the release was described" sign "$work/release/files/Talvex.exe" Again
check "the release is refused" refuses "Talvex.exe: is not the file that the manifest describes." verify
finish_checks
