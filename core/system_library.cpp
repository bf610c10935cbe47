#include "core/system_library.h"

#include <string_view>

namespace talvex {
namespace {

// Declared here because headers for Windows 7 leave them out.
using SetDefaultDllDirectoriesFunction = BOOL WINAPI(DWORD directories);
constexpr DWORD kSearchSystemDirectory = 0x00000800;  // LOAD_LIBRARY_SEARCH_SYSTEM32

// Whether Windows knows the flag: it came together with this function. Looked up, not imported, because a
// missing import would keep the program from starting.
bool FindSetDirectories(SetDefaultDllDirectoriesFunction*& set_directories) {
  return FindFunction(GetModuleHandleW(L"kernel32.dll"), "SetDefaultDllDirectories", set_directories);
}

}  // namespace

void RestrictDllSearch() noexcept {
  SetDefaultDllDirectoriesFunction* set_directories = nullptr;
  if (FindSetDirectories(set_directories)) {
    set_directories(kSearchSystemDirectory);
  }
}

HMODULE LoadSystemLibrary(const wchar_t* name) noexcept {
  wchar_t path[MAX_PATH] = {};
  const UINT length = GetSystemDirectoryW(path, MAX_PATH);
  const std::wstring_view rest(name);
  if (length == 0 || length + 1 + rest.size() >= MAX_PATH) {
    return nullptr;
  }
  path[length] = L'\\';
  rest.copy(path + length + 1, rest.size());
  return LoadLibraryExW(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

HMODULE LoadVersionedSystemLibrary(const wchar_t* name) noexcept {
  SetDefaultDllDirectoriesFunction* unused = nullptr;
  return FindSetDirectories(unused) ? LoadLibraryExW(name, nullptr, kSearchSystemDirectory)
                                    : LoadSystemLibrary(name);
}

}  // namespace talvex
