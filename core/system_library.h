#pragma once

// Windows DLLs, loaded so that only the system directory can provide them. Our programs run from a directory
// that the user can write to, and Windows searches there first: a planted DLL would run inside the updater.
// Only Windows' "known DLLs" (kernel32, user32, gdi32, advapi32, shell32, ole32, msvcrt) are safe to import.
// The others are loaded here on first use, and stay loaded until the process ends.

#include <windows.h>

namespace talvex {

// The second defence, for DLLs that Windows DLLs load by bare name: restricts every later search to the
// system directory. Must be the first call of an entry point. Windows 7 has the restriction only since a 2011
// update; without it the program relies on the first defence alone.
void RestrictDllSearch() noexcept;

// Loads `name` by its full path in the system directory, and its dependencies from there too. Null on
// failure.
[[nodiscard]] HMODULE LoadSystemLibrary(const wchar_t* name) noexcept;

// The same for a DLL that Windows has in several side-by-side versions: by its bare name, with a flag that
// restricts the search to the system directory, so that the version requested by the program's manifest is
// loaded. A Windows without the flag loads the version in the system directory. (The versions' location is
// decided before the entry point runs; a folder "<program>.local" beside the program can redirect it. We have
// no defence against that.)
[[nodiscard]] HMODULE LoadVersionedSystemLibrary(const wchar_t* name) noexcept;

// Sets `function` to the function `name` of `library`. False, and null, when there is none, or no library.
template <typename Function>
[[nodiscard]] bool FindFunction(HMODULE library, const char* name, Function*& function) noexcept {
  // Through void*, because compilers warn about a cast between function types.
  void* const address = library == nullptr ? nullptr : reinterpret_cast<void*>(GetProcAddress(library, name));
  function = reinterpret_cast<Function*>(address);
  return address != nullptr;
}

}  // namespace talvex
