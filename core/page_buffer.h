#pragma once

// Memory in whole pages, for pieces of files.

#include <windows.h>

#include <cstddef>
#include <memory>

namespace talvex {

struct ReleasePages {
  void operator()(std::byte* pages) const noexcept { VirtualFree(pages, 0, MEM_RELEASE); }
};
using PageBuffer = std::unique_ptr<std::byte, ReleasePages>;

// `size` bytes, or null. Windows zeroes pages when they are first used, so a small file costs no more than
// its own size; and copies from and to whole pages are the fastest.
[[nodiscard]] inline PageBuffer AllocatePages(std::size_t size) noexcept {
  return PageBuffer(
      static_cast<std::byte*>(VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE)));
}

}  // namespace talvex
