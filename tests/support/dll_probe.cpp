// Loads DLLs as the programs do, behind both of their walls or one of them:
//   dll_probe WALL NAME           loads NAME.dll behind no-wall, full-path, versioned,
//   versioned-on-old-windows
//                                 (these three are forms of the first wall) or second-wall
//   dll_probe both-walls window   shows and ends the status window
//   dll_probe missing hash        prints what hashing says when no DLL can be loaded

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "app/reporting.h"
#include "app/status_window.h"
#include "core/sha256.h"
#include "core/system_library.h"
#include "tests/support/import_patch.h"

namespace {

using talvex::UpdateError;

int ShowWindowOnce() {
  talvex::RestrictDllSearch();
  talvex::StatusWindow window;
  return window.StartStatusWindow(L"Probe") ? 0 : 1;
}

int HashWithoutDlls() {
  const talvex::test::ImportPatch patch("LoadLibraryExW", talvex::test::Failing(&LoadLibraryExW));
  talvex::Sha256Digest digest;
  std::uint64_t size = 0;
  UpdateError buffer_error;
  UpdateError file_error;
  std::wstring self(MAX_PATH, L'\0');
  self.resize(GetModuleFileNameW(nullptr, self.data(), MAX_PATH));
  const bool hashed = talvex::Sha256OfBuffer({}, digest, buffer_error) ||
                      talvex::Sha256OfFile(self, UINT64_MAX, digest, size, file_error);
  talvex::WriteConsoleLine(buffer_error.Message());
  talvex::WriteConsoleLine(file_error.Message());
  return hashed ? 0 : 1;
}

const auto real_get_address = talvex::test::ImportedFunction<decltype(GetProcAddress)>("GetProcAddress");

FARPROC WINAPI DenyTheNewFunction(HMODULE library, const char* name) {
  return std::string_view(name) == "SetDefaultDllDirectories" ? nullptr : real_get_address(library, name);
}

HMODULE LoadBehind(std::wstring_view wall, const wchar_t* name) {
  if (wall == L"full-path") {
    return talvex::LoadSystemLibrary(name);
  }
  if (wall == L"versioned") {
    return talvex::LoadVersionedSystemLibrary(name);
  }
  if (wall == L"versioned-on-old-windows") {
    const talvex::test::ImportPatch patch("GetProcAddress", &DenyTheNewFunction);
    return talvex::LoadVersionedSystemLibrary(name);
  }
  if (wall == L"second-wall") {
    talvex::RestrictDllSearch();
  }
  return LoadLibraryW(name);
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) {
    return 2;
  }
  const std::string_view wall = arguments[1];
  const std::string_view name = arguments[2];
  if (wall == "both-walls") {
    return ShowWindowOnce();
  }
  if (wall == "missing") {
    return HashWithoutDlls();
  }
  const std::wstring file = std::wstring(name.begin(), name.end()) + L".dll";
  return LoadBehind(std::wstring(wall.begin(), wall.end()), file.c_str()) == nullptr ? 1 : 0;
}
