#pragma once

// How a character that must not be written as it is appears, in JSON and on the console.

#include <string>

#include "core/text_encoding.h"

namespace talvex {

// "\u" and the four hexadecimal digits of a UTF-16 code unit.
[[nodiscard]] inline std::wstring EscapeUnit(wchar_t unit) {
  std::wstring escaped = L"\\u";
  for (int shift = 12; shift >= 0; shift -= 4) {
    escaped += static_cast<wchar_t>(kHexDigits[(unit >> shift) & 0xF]);
  }
  return escaped;
}

}  // namespace talvex
