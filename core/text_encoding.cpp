#include "core/text_encoding.h"

#include <windows.h>

#include <limits>

namespace talvex {
namespace {

// The conversion functions take lengths as int; no text of this program comes near that limit, but a caller's
// mistake must not become a negative length.
bool FitsInt(std::size_t length) {
  return length <= static_cast<std::size_t>(std::numeric_limits<int>::max());
}

bool HexDigitValue(char character, unsigned& value) {
  const std::size_t position = std::string_view(kHexDigits).find(character);
  value = static_cast<unsigned>(position);
  return position != std::string_view::npos;
}

template <typename Char>
bool ParseDecimal(std::basic_string_view<Char> text, std::uint64_t& value) {
  constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
  value = 0;
  if (text.empty()) {
    return false;
  }
  std::uint64_t parsed = 0;
  for (const Char character : text) {
    if (character < Char{'0'} || character > Char{'9'}) {
      return false;
    }
    const auto digit = static_cast<unsigned>(character - Char{'0'});
    if (parsed > (kMax - digit) / 10) {
      return false;
    }
    parsed = parsed * 10 + digit;
  }
  value = parsed;
  return true;
}

}  // namespace

std::wstring Utf8ToWide(std::string_view utf8) {
  if (utf8.empty() || !FitsInt(utf8.size())) {
    return {};
  }
  const int length = static_cast<int>(utf8.size());
  const int needed = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), length, nullptr, 0);
  if (needed < 1) {
    return {};
  }
  std::wstring wide(static_cast<std::size_t>(needed), L'\0');
  if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), length, wide.data(), needed) !=
      needed) {
    return {};
  }
  return wide;
}

std::string WideToUtf8(std::wstring_view wide) {
  if (wide.empty() || !FitsInt(wide.size())) {
    return {};
  }
  const int length = static_cast<int>(wide.size());
  const int needed =
      WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, wide.data(), length, nullptr, 0, nullptr, nullptr);
  if (needed < 1) {
    return {};
  }
  std::string utf8(static_cast<std::size_t>(needed), '\0');
  if (WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, wide.data(), length, utf8.data(), needed, nullptr,
                          nullptr) != needed) {
    return {};
  }
  return utf8;
}

std::wstring DigestToHex(const Sha256Digest& digest) {
  std::wstring text;
  text.reserve(kDigestHexLength);
  for (const std::uint8_t byte : digest.bytes) {
    text += static_cast<wchar_t>(kHexDigits[byte >> 4]);
    text += static_cast<wchar_t>(kHexDigits[byte & 0x0F]);
  }
  return text;
}

bool ParseHexDigest(std::string_view text, Sha256Digest& digest) {
  digest = {};
  if (text.size() != kDigestHexLength) {
    return false;
  }
  Sha256Digest parsed;
  for (std::size_t i = 0; i < parsed.bytes.size(); ++i) {
    unsigned high = 0;
    unsigned low = 0;
    if (!HexDigitValue(text[2 * i], high) || !HexDigitValue(text[2 * i + 1], low)) {
      return false;
    }
    parsed.bytes[i] = static_cast<std::uint8_t>(high * 16 + low);
  }
  digest = parsed;
  return true;
}

bool ParseDecimalU64(std::string_view text, std::uint64_t& value) {
  return ParseDecimal(text, value);
}

bool ParseDecimalU64(std::wstring_view text, std::uint64_t& value) {
  return ParseDecimal(text, value);
}

}  // namespace talvex
