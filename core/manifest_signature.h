#pragma once

// The publisher's RSA-3072 signature over a manifest.

#include <cstddef>
#include <cstdint>
#include <span>

#include "core/update_error.h"

namespace talvex {

inline constexpr std::uint32_t kKeyBits = 3072;
inline constexpr std::uint32_t kModulusLength = kKeyBits / 8;  // bytes

// Whether `blob` is a CNG RSA public key blob of an RSA-3072 key, with any exponent.
[[nodiscard]] bool IsRsa3072PublicKey(std::span<const std::byte> blob) noexcept;

// Verifies that `signature` is the RSASSA-PKCS1-v1_5 signature with SHA-256 over exactly `manifest_bytes`,
// made with the private half of `key_blob` (a CNG RSA public key blob). The manifest must not be parsed
// before this has succeeded. Messages:
//   "The embedded update public key is invalid."               the blob is shorter than its header
//   "The update key or signature does not use RSA-3072."       another kind or size of key or signature
//   that of Sha256OfBuffer
//   "The update manifest signature is invalid."
[[nodiscard]] bool VerifyManifestSignature(std::span<const std::byte> manifest_bytes,
                                           std::span<const std::byte> signature,
                                           std::span<const std::byte> key_blob, UpdateError& error);

}  // namespace talvex
