#pragma once

// The public keys whose signatures a client accepts. There is more than one while the publisher changes keys:
// a client that trusts the old and the new one can be updated from one to the other.

#include <cstddef>
#include <span>
#include <vector>

#include "core/update_error.h"
#include "core/whole_file.h"
#include "formats/manifest.h"

namespace talvex::client {

// CNG RSA public key blobs of 3072 bits.
using TrustedKeys = std::vector<ByteBuffer>;

// Adds the keys in `bytes`: a PEM text with one or more keys, or a CNG blob. Messages:
//   "A trusted key is not an RSA-3072 public key, as PEM text or as CNG blob."
[[nodiscard]] bool AddTrustedKeys(std::span<const std::byte> bytes, TrustedKeys& keys, UpdateError& error);

// The index of the key that verifies `signature` over `manifest_bytes`, which are then parsed into
// `manifest`, which starts empty; keys.size() when there is none, or when it cannot be parsed. Messages:
// those of VerifyManifestSignature and ParseManifest.
[[nodiscard]] std::size_t FindSigningKey(const TrustedKeys& keys, std::span<const std::byte> manifest_bytes,
                                         std::span<const std::byte> signature, Manifest& manifest,
                                         UpdateError& error);

}  // namespace talvex::client
