#pragma once

// Which public keys a program holds, found in its bytes. The helper embeds the one that it trusts as a CNG
// RSA public key blob; a client may hold its keys in any of the usual forms.

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "publisher/public_key_file.h"

namespace talvex {

// Every key blob in `bytes` of the same kind as that of `key`, itself included: RSA-3072, public, with an
// exponent of the same length. Parts of `bytes`.
[[nodiscard]] std::vector<std::span<const std::byte>> FindKeyBlobs(std::span<const std::byte> bytes,
                                                                   const PublicKey& key);

// Every RSA-3072 public key in `bytes`, as a CNG blob of the same kind as that of `like` or as PEM text: the
// forms that the update library takes. Each once, as a blob.
[[nodiscard]] std::vector<ByteBuffer> FindPublicKeys(std::span<const std::byte> bytes, const PublicKey& like);

// Whether `bytes` hold `key`: its modulus, big-endian (in a CNG blob or in DER), or its PEM text, with line
// ends of any kind or none between the lines.
[[nodiscard]] bool HoldsKey(std::span<const std::byte> bytes, const PublicKey& key);

}  // namespace talvex
