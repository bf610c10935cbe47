#pragma once

// The publisher's public key, chosen at build time.

#include <cstddef>
#include <span>

namespace talvex {

// The embedded RSA-3072 public key as a CNG RSA public key blob of 411 bytes.
[[nodiscard]] std::span<const std::byte> PublisherKeyBlob() noexcept;

}  // namespace talvex
