#pragma once

// The owner of memory that Windows allocates and the caller frees with LocalFree.

#include <windows.h>

#include <memory>

namespace talvex {

struct LocalFreeDeleter {
  void operator()(void* memory) const noexcept { LocalFree(memory); }
};

template <typename T>
using LocalMemory = std::unique_ptr<T, LocalFreeDeleter>;

// The words of a command line, as CommandLineToArgvW returns them.
using ArgumentVector = LocalMemory<wchar_t*[]>;

}  // namespace talvex
