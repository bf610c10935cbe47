# The public key that the helper trusts, embedded as the library talvex_publisher_key (core/publisher_key.h), and
# as trusted_keys.h for programs that give it to the update library (talvex_trusted_keys).
# Sets TALVEX_DEVELOPMENT_KEY: true when the build trusts its own key pair, which is in the build folder as
# development-key/{private.pem,private.blob,public.pem}.

include(${CMAKE_CURRENT_LIST_DIR}/rsa_public_key.cmake)

set(TALVEX_UPDATE_PUBLIC_KEY "" CACHE FILEPATH
  "PEM file of the publisher's RSA-3072 public key; empty: a development key made in the build folder")

# Generates the development key pair once. private.blob is the same key in CryptImportKey's format: tests sign
# with it.
function(talvex_make_development_key folder)
  file(MAKE_DIRECTORY "${folder}")
  # Under a temporary name until all three files exist, so that an interrupted run leaves no partial pair.
  set(making "${folder}/making")
  execute_process(COMMAND "${TALVEX_OPENSSL}" genrsa -out "${making}.pem" 3072
    ERROR_QUIET RESULT_VARIABLE made)
  execute_process(COMMAND "${TALVEX_OPENSSL}" rsa -in "${making}.pem" -pubout -out "${folder}/public.pem"
    ERROR_QUIET RESULT_VARIABLE published)
  execute_process(COMMAND "${TALVEX_OPENSSL}" rsa -in "${making}.pem" -outform MSBLOB -out "${folder}/private.blob"
    ERROR_QUIET RESULT_VARIABLE converted)
  if(NOT "${made},${published},${converted}" STREQUAL "0,0,0")
    message(FATAL_ERROR "openssl could not make a development key in ${folder}.")
  endif()
  file(CHMOD "${making}.pem" "${folder}/private.blob" PERMISSIONS OWNER_READ OWNER_WRITE)
  file(RENAME "${making}.pem" "${folder}/private.pem")
endfunction()

# Writes `source`, which holds the key as the 411-byte blob of CNG: the six little-endian fields "RSA1", 3072
# bits, 3 bytes of exponent, 384 bytes of modulus, no primes; then exponent and modulus, big-endian.
function(talvex_write_key_source source modulus exponent)
  string(CONCAT header 52534131 000c0000 03000000 80010000 00000000 00000000)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${header}${exponent}${modulus}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)"
    "\\1\n    " bytes "${bytes}")
  file(CONFIGURE OUTPUT "${source}" @ONLY CONTENT [[
// Made by cmake/publisher_key.cmake from the publisher's public key.

#include "core/publisher_key.h"

namespace talvex {
namespace {

constexpr unsigned char kPublisherKeyBlob[] = {
    @bytes@};
static_assert(sizeof(kPublisherKeyBlob) == 411);

}  // namespace

std::span<const std::byte> PublisherKeyBlob() noexcept { return std::as_bytes(std::span(kPublisherKeyBlob)); }

}  // namespace talvex
]])
endfunction()

# Writes `header`, which holds the text of the file `pem` as a string.
function(talvex_write_key_header header pem)
  file(STRINGS "${pem}" lines)
  list(TRANSFORM lines REPLACE ".+" "    \"\\0\\\\n\"")
  list(JOIN lines "\n" text)
  file(CONFIGURE OUTPUT "${header}" @ONLY CONTENT [[
// Made by cmake/publisher_key.cmake from the publisher's public key.
static const char kTrustedKey[] =
@text@;
]])
endfunction()

if(TALVEX_UPDATE_PUBLIC_KEY)
  set(TALVEX_DEVELOPMENT_KEY FALSE)
  set(talvex_public_pem "${TALVEX_UPDATE_PUBLIC_KEY}")
else()
  set(TALVEX_DEVELOPMENT_KEY TRUE)
  find_program(TALVEX_OPENSSL NAMES openssl
    HINTS "$ENV{ProgramFiles}/Git/usr/bin" "$ENV{ProgramFiles}/Git/mingw64/bin")
  if(NOT TALVEX_OPENSSL)
    message(FATAL_ERROR "A development key cannot be made without openssl: install it, or set "
      "TALVEX_UPDATE_PUBLIC_KEY to the file of your public key.")
  endif()
  set(talvex_key_folder "${PROJECT_BINARY_DIR}/development-key")
  set(talvex_public_pem "${talvex_key_folder}/public.pem")
  if(NOT EXISTS "${talvex_key_folder}/private.pem")
    talvex_make_development_key("${talvex_key_folder}")
  endif()
  message(WARNING "THIS BUILD TRUSTS A DEVELOPMENT KEY (${talvex_public_pem}). Whoever has this build folder can "
    "sign updates for it. Set TALVEX_UPDATE_PUBLIC_KEY to the publisher's public key for a release.")
endif()

talvex_read_rsa3072_public_key("${talvex_public_pem}" talvex_modulus talvex_exponent)
set(talvex_key_source "${PROJECT_BINARY_DIR}/generated/publisher_key.cpp")
talvex_write_key_source("${talvex_key_source}" ${talvex_modulus} ${talvex_exponent})
# A changed key file means a different program.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${talvex_public_pem}")

add_library(talvex_publisher_key STATIC "${talvex_key_source}")
target_link_libraries(talvex_publisher_key PUBLIC talvex_compiler)

set(talvex_key_headers "${PROJECT_BINARY_DIR}/generated/keys")
talvex_write_key_header("${talvex_key_headers}/trusted_keys.h" "${talvex_public_pem}")
add_library(talvex_trusted_keys INTERFACE)
target_include_directories(talvex_trusted_keys INTERFACE "${talvex_key_headers}")
