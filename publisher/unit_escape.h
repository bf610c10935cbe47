#pragma once

// How a character that must not be written as it is appears, in JSON and on the console.

#include <string>

namespace talvex {

// "\u" and the four hexadecimal digits of a UTF-16 code unit.
[[nodiscard]] inline std::wstring EscapeUnit(wchar_t unit) {
  constexpr wchar_t kHexDigits[] = L"0123456789abcdef";
  std::wstring escaped = L"\\u";
  for (int shift = 12; shift >= 0; shift -= 4) {
    escaped += kHexDigits[(unit >> shift) & 0xF];
  }
  return escaped;
}

}  // namespace talvex
