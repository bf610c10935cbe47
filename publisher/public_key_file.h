#pragma once

// The publisher's public key as openssl writes it: PEM, SubjectPublicKeyInfo. It is the same file that the
// helper's build is given.

#include <string>

#include "core/update_error.h"
#include "core/whole_file.h"

namespace talvex {

// Reads the RSA public key in the PEM file at `path` into the blob that manifest signatures are verified
// with. Only the size and kind that the verification accepts come through there. Messages: those of
// ReadWholeFile, and
//   "The file does not hold one public key in PEM form."
//   "The public key is not an RSA key."
[[nodiscard]] bool LoadPublicKey(const std::wstring& path, ByteBuffer& key_blob, UpdateError& error);

}  // namespace talvex
