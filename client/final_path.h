#pragma once

// Where an open file or directory really is: its own path may lead there through links.

#include <windows.h>

#include <string>

namespace talvex::client {

// The path without any link in it, in the form that the `flags` of GetFinalPathNameByHandleW say; empty on
// failure.
[[nodiscard]] std::wstring FinalPath(HANDLE file, DWORD flags);

// The path by a drive or a share, which no rename and no link can redirect while the file is open; empty on
// volumes that cannot tell. It has the prefix \\?\ only if it is too long without.
[[nodiscard]] std::wstring TruePath(HANDLE file);

// Whether it is on a server, however its path is written.
[[nodiscard]] bool IsOnShare(HANDLE file);

}  // namespace talvex::client
