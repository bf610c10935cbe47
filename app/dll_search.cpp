#include "app/dll_search.h"

#include <windows.h>

namespace talvex {
namespace {

// Headers for Windows 7 declare the flag and not the function.
using SetDefaultDllDirectoriesFunction = BOOL(WINAPI*)(DWORD);

}  // namespace

void RestrictDllSearch() noexcept {
  const HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
  if (kernel == nullptr) {
    return;
  }
  // Looked up and not imported, because a missing import would keep the program from starting. The address
  // takes a way over void*: compilers warn of a cast between function types.
  void* const address = reinterpret_cast<void*>(GetProcAddress(kernel, "SetDefaultDllDirectories"));
  if (address != nullptr) {
    reinterpret_cast<SetDefaultDllDirectoriesFunction>(address)(LOAD_LIBRARY_SEARCH_SYSTEM32);
  }
}

}  // namespace talvex
