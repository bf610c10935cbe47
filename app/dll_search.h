#pragma once

// Where Windows may look for DLLs.

namespace talvex {

// Leaves only System32 for every DLL that is loaded from now on. The helper lies in a directory that its user
// can write, and Windows would look there first: a DLL of that name would run inside the updater. Must be the
// first thing that the entry does, before any call into a delay-loaded DLL. Windows 7 knows the restriction
// only since an update of 2011; without it the program runs with the search order that it has.
void RestrictDllSearch() noexcept;

}  // namespace talvex
