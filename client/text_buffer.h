#pragma once

// Text for a caller in C, who gives the room for it.

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace talvex::client {

// Copies `text`, shortened if it has to be, and always with a terminating zero. `capacity` is in characters;
// without room nothing is written.
inline void CopyText(std::wstring_view text, wchar_t* buffer, std::size_t capacity) {
  if (buffer != nullptr && capacity != 0) {
    *std::copy_n(text.begin(), std::min(text.size(), capacity - 1), buffer) = L'\0';
  }
}

template <std::size_t kCapacity>
void CopyText(std::wstring_view text, wchar_t (&field)[kCapacity]) {
  CopyText(text, field, kCapacity);
}

}  // namespace talvex::client
