#pragma once

// The publisher's public key as openssl writes it: PEM, SubjectPublicKeyInfo. The same file is given to the
// helper's build.

#include <string>

#include "core/update_error.h"
#include "core/whole_file.h"

namespace talvex {

// Reads the RSA public key in the PEM file at `path` into the blob that manifest signatures are verified
// with. Does not check the key's size; the verification does. Messages: those of ReadWholeFile and
// DecodePublicKeyPem.
[[nodiscard]] bool LoadPublicKey(const std::wstring& path, ByteBuffer& key_blob, UpdateError& error);

}  // namespace talvex
