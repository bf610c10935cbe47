#pragma once

// The publisher's public key as openssl writes it: PEM, SubjectPublicKeyInfo. The same file is given to the
// helper's build.

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/update_error.h"
#include "core/whole_file.h"

namespace talvex {

inline constexpr std::size_t kPemLineLength = 64;       // characters of base64
inline constexpr std::uint32_t kPemSizeLimit = 16'384;  // bytes

// One key in its two forms.
struct PublicKey {
  std::wstring path;  // of the file that it was read from
  // The CNG RSA public key blob that manifest signatures are verified with: a header, then the exponent and
  // the modulus, both big-endian.
  ByteBuffer blob;
  std::string base64;  // of the SubjectPublicKeyInfo, without line breaks
};

// Reads the public key in the PEM file at `path`: RSA-3072 with the exponent 65537, as the helper's
// build demands. After a failure `key` must not be used. Messages: those of ReadWholeFile and
// DecodePublicKeyPem, and
//   "The file holds a private key. Give this program the public half only."
//   "The public key does not have 3072 bits and the exponent 65537."
[[nodiscard]] bool LoadPublicKey(const std::wstring& path, PublicKey& key, UpdateError& error);

// What tells one key from another, as people compare it: the SHA-256 of its blob in hexadecimal; empty when
// Windows cannot calculate it.
[[nodiscard]] std::wstring FingerprintOf(const ByteBuffer& blob);

// `key` as openssl writes it: PEM, lines of 64 characters that end in LF.
[[nodiscard]] std::string FormatPem(const PublicKey& key);

}  // namespace talvex
