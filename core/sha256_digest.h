#pragma once

// The value that ties every manifest, plan and client file to exact contents.

#include <array>
#include <cstddef>
#include <cstdint>

namespace talvex {

// A SHA-256 digest. It has no operator==: DigestsEqual is the one comparison.
struct Sha256Digest {
  std::array<std::uint8_t, 32> bytes{};
};

// Compares all 32 bytes whatever they hold, so that the time taken reveals nothing about where two digests
// differ.
[[nodiscard]] inline bool DigestsEqual(const Sha256Digest& left, const Sha256Digest& right) noexcept {
  unsigned difference = 0;
  for (std::size_t i = 0; i < left.bytes.size(); ++i) {
    difference |= static_cast<unsigned>(left.bytes[i] ^ right.bytes[i]);
  }
  return difference == 0;
}

}  // namespace talvex
