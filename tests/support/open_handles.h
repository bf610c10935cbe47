#pragma once

// How many handles this process has open.

#include <windows.h>

#include <cstddef>
#include <cstdint>

namespace talvex::test {

// Asks about each value that a handle may have, because Wine tells no count.
inline std::size_t CountOpenHandles() {
  std::size_t count = 0;
  for (std::uintptr_t value = 4; value < 0x10000; value += 4) {
    DWORD flags = 0;
    count += GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) != FALSE;
  }
  return count;
}

}  // namespace talvex::test
