#!/bin/sh
# Which public keys the build accepts: publisher_key_test.sh SOURCE_FOLDER
. "$(dirname "$0")/support/checks.sh"
source=$1

{
  openssl genrsa -out "$work/private.pem" 3072
  openssl rsa -in "$work/private.pem" -pubout -out "$work/good.pem"
  openssl rsa -in "$work/private.pem" -RSAPublicKey_out -out "$work/pkcs1.pem"
  sed 's/$/\r/' "$work/good.pem" > "$work/crlf.pem"
  sed 6d "$work/good.pem" > "$work/cut.pem"
  cat "$work/good.pem" "$work/good.pem" > "$work/two.pem"
  openssl genrsa 2048 | openssl rsa -pubout -out "$work/rsa2048.pem"
  openssl genrsa -3 3072 | openssl rsa -pubout -out "$work/exponent3.pem"
  openssl genpkey -algorithm rsa-pss -pkeyopt rsa_keygen_bits:3072 | openssl pkey -pubout -out "$work/pss.pem"
} 2> /dev/null

cat > "$work/read_key.cmake" << END
include($source/cmake/rsa_public_key.cmake)
talvex_read_rsa3072_public_key(\${PEM} modulus exponent)
message("Modulus=\${modulus} Exponent=\${exponent}")
END

read_key() {
  cmake "-DPEM=$work/$1.pem" -P "$work/read_key.cmake"
}

holds_the_modulus() {
  modulus=$(openssl rsa -in "$work/private.pem" -noout -modulus | tr A-F a-f)
  read_key "$1" 2>&1 | grep -qxF "$modulus Exponent=010001"
}

check "an RSA-3072 public key is read as openssl reads it" holds_the_modulus good
check "line ends of Windows change nothing" holds_the_modulus crlf
check "a file that is not there is refused" refuses "missing.pem does not exist." read_key missing
check "a private key is refused" refuses "holds a private key" read_key private
check "a key without its algorithm is refused" refuses 'is not one public key in PEM ("BEGIN PUBLIC KEY").' read_key pkcs1
check "two keys are refused" refuses "is not one public key in PEM" read_key two
check "a key that is cut short is refused" refuses "cut short" read_key cut
check "RSA-2048 is refused" refuses "does not have 3072 bits." read_key rsa2048
check "an exponent of one byte is refused" refuses "is not 3 bytes long" read_key exponent3
check "configuring stops at a key for another algorithm" refuses "the key in $work/pss.pem is not an RSA key." \
  cmake -S "$source" -B "$work/build" -G Ninja "--toolchain=$source/cmake/mingw-i686.cmake" \
  -DCMAKE_BUILD_TYPE=Release "-DTALVEX_UPDATE_PUBLIC_KEY=$work/pss.pem"
finish_checks
