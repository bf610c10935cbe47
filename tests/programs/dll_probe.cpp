// Loads DLLs as the programs do, behind both of their walls or one of them:
//   dll_probe WALL NAME...   loads each NAME.dll behind a wall alone (see LoadBehind); the exit code counts
//                            those that cannot be loaded
//   dll_probe window         shows the status window, and prints where its controls come from
//   dll_probe missing        prints what hashing says when no DLL can be loaded

#include <windows.h>

#include <string>
#include <string_view>

#include "app/reporting.h"
#include "app/status_window.h"
#include "core/ascii_case.h"
#include "core/sha256.h"
#include "core/system_library.h"
#include "tests/support/import_patch.h"

namespace {

void ShowWindowOnce() {
  talvex::RestrictDllSearch();
  talvex::StatusWindow window;
  wchar_t path[MAX_PATH] = {};
  if (window.StartStatusWindow(L"Probe")) {
    GetModuleFileNameW(GetModuleHandleW(L"comctl32.dll"), path, MAX_PATH);
  }
  talvex::WriteConsoleLine(talvex::FoldAsciiCase(path));
}

void HashWithoutDlls() {
  const talvex::test::ImportPatch patch("LoadLibraryExW", talvex::test::Failing(&LoadLibraryExW));
  talvex::Sha256Digest digest;
  talvex::UpdateError error;
  static_cast<void>(talvex::Sha256OfBuffer({}, digest, error));
  talvex::WriteConsoleLine(error.Message());
}

HMODULE LoadBehind(std::string_view wall, const wchar_t* name) {
  if (wall == "full-path") {
    return talvex::LoadSystemLibrary(name);
  }
  if (wall == "versioned") {
    return talvex::LoadVersionedSystemLibrary(name);
  }
  if (wall == "versioned-on-old-windows") {  // which has no SetDefaultDllDirectories
    const talvex::test::ImportPatch patch("GetProcAddress", talvex::test::Failing(&GetProcAddress));
    return talvex::LoadVersionedSystemLibrary(name);
  }
  if (wall == "second-wall") {
    talvex::RestrictDllSearch();
  }
  return LoadLibraryW(name);
}

}  // namespace

int main(int count, char** arguments) {
  const std::string_view mode = count < 2 ? "" : arguments[1];
  if (mode == "window") {
    ShowWindowOnce();
  } else if (mode == "missing") {
    HashWithoutDlls();
  }
  int missing = 0;
  for (int i = 2; i < count; ++i) {
    const std::string file = std::string(arguments[i]) + ".dll";
    missing += LoadBehind(mode, std::wstring(file.begin(), file.end()).c_str()) == nullptr ? 1 : 0;
  }
  return missing;
}
