#pragma once

// Windows' own DLLs, loaded so that only the system directory can provide them. A program of ours lies in a
// directory that its user can write, and Windows looks there first: a planted DLL would run inside the
// updater. Only its "known DLLs" (kernel32, user32, gdi32, advapi32, shell32, ole32, msvcrt) are safe to
// import. The others are loaded here, at their first use, and stay loaded until the process ends.

#include <windows.h>

namespace talvex {

// The second wall, for DLLs that Windows' own DLLs load by their bare name: leaves only the system directory
// for every search from now on. Must be the first thing that an entry does. Windows 7 knows the restriction
// only since an update of 2011; without it the program runs behind the first wall alone.
void RestrictDllSearch() noexcept;

// Loads `name` by its full path in the system directory, and what it needs from there too. Null when that
// fails.
[[nodiscard]] HMODULE LoadSystemLibrary(const wchar_t* name) noexcept;

// The same for a DLL of which Windows has several versions side by side: by its bare name, with a flag that
// allows the system directory alone, so that the version comes that the program's manifest asks for. A
// Windows without the flag gives the version in the system directory. (Where the versions lie is decided
// before the entry runs; a folder "<program>.local" beside the program can move it. No wall of ours stands
// before that.)
[[nodiscard]] HMODULE LoadVersionedSystemLibrary(const wchar_t* name) noexcept;

// Yields the function `name` of `library`. False, and null, when there is none, or no library.
template <typename Function>
[[nodiscard]] bool FindFunction(HMODULE library, const char* name, Function*& function) noexcept {
  // A way over void*: compilers warn of a cast between function types.
  void* const address = library == nullptr ? nullptr : reinterpret_cast<void*>(GetProcAddress(library, name));
  function = reinterpret_cast<Function*>(address);
  return address != nullptr;
}

}  // namespace talvex
