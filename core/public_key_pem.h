#pragma once

// A public key as people pass it on: in PEM.

#include <string>
#include <string_view>

#include "core/update_error.h"
#include "core/whole_file.h"

namespace talvex {

// The lines around a public key in PEM.
inline constexpr std::string_view kPublicKeyHeader = "-----BEGIN PUBLIC KEY-----";
inline constexpr std::string_view kPublicKeyFooter = "-----END PUBLIC KEY-----";

// Sets `base64` to the text between header and footer of the one public key in `pem`, without white space.
// False when there is more or something else.
[[nodiscard]] bool ReadPublicKeyPem(std::string_view pem, std::string& base64);

// Decodes the one public key in `pem` ("BEGIN PUBLIC KEY") into `key_blob`, a CNG RSA public key blob.
// Messages:
//   "The file does not hold one public key in PEM form."
//   "Windows could not decode the public key."
//   "The public key is not an RSA key."
[[nodiscard]] bool DecodePublicKeyPem(std::string_view pem, ByteBuffer& key_blob, UpdateError& error);

}  // namespace talvex
