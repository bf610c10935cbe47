#pragma once

// The program's text encodings: UTF-16 in memory and on the command line, UTF-8 in every file and on the
// console, lowercase hexadecimal for digests, decimal for numbers. Every conversion is strict; none sets an
// UpdateError, because only the caller knows what the text was meant to be.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/sha256_digest.h"

namespace talvex {

// Characters in the only text form of a digest.
inline constexpr std::size_t kDigestHexLength = 64;

// The digits of everything that is written in hexadecimal.
inline constexpr char kHexDigits[] = "0123456789abcdef";

// Converts UTF-8 to UTF-16. Overlong forms, encoded surrogates, cut-off and otherwise invalid sequences fail
// the whole conversion. An empty input and a failure both give an empty text; a zero byte is a character.
[[nodiscard]] std::wstring Utf8ToWide(std::string_view utf8);

// Converts UTF-16 to UTF-8. A lone surrogate fails the whole conversion, which then gives an empty text.
[[nodiscard]] std::string WideToUtf8(std::wstring_view wide);

// Writes a digest as 64 lowercase hexadecimal characters, each byte's high nibble first.
[[nodiscard]] std::wstring DigestToHex(const Sha256Digest& digest);

// Reads what DigestToHex writes, and nothing else: uppercase is rejected, so that every digest has exactly
// one spelling. A failure leaves `digest` zeroed.
[[nodiscard]] bool ParseHexDigest(std::string_view text, Sha256Digest& digest);

// Reads one or more digits 0 to 9 of a number of at most 2^64 - 1, without sign or blanks; leading zeros are
// accepted. A failure leaves `value` 0. The wide overload is for the command line.
[[nodiscard]] bool ParseDecimalU64(std::string_view text, std::uint64_t& value);
[[nodiscard]] bool ParseDecimalU64(std::wstring_view text, std::uint64_t& value);

}  // namespace talvex
