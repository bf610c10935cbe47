#pragma once

// The client directory, and every path below it. No other file of the program builds such a path. Nothing is
// cached: each operation resolves the root afresh, so that a directory replaced between two calls is noticed.
//
// "Client directory" is the text as given; "client root" is its absolute form without a trailing separator (a
// drive root keeps its own). Relative paths have "\" as their only separator. Despite the name, any directory
// may serve as the client directory.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/update_error.h"

namespace talvex {

// The longest path in Windows, in characters, terminating zero included.
inline constexpr std::uint32_t kPathCapacity = 32'768;

// "C:\" is the longest root whose separator belongs to it.
inline constexpr std::size_t kDriveRootLength = 3;

// Makes `client_directory` absolute. A failure returns an empty text and one of:
//   "The client directory is empty."
//   "Could not resolve the client directory: " + Windows text
[[nodiscard]] std::wstring ResolveClientRoot(std::wstring_view client_directory, UpdateError& error);

// Joins the two with one separator; if one part is empty, returns the other.
[[nodiscard]] std::wstring JoinPath(std::wstring_view base, std::wstring_view name);

// Sets `full_path` to the absolute, normalised path of `relative_path` below the client directory, shorter
// than 260 characters and checked to lie inside (the root itself does). Every failure leaves `full_path`
// empty. Messages: those of ResolveClientRoot, and
//   "Could not resolve an update path: " + Windows text
//   "An update path escapes the client directory or is too long."
[[nodiscard]] bool ResolveUpdatePath(std::wstring_view client_directory, std::wstring_view relative_path,
                                     std::wstring& full_path, UpdateError& error);

// Whether RejectReparsePoints checks the last component too.
enum class LastComponent { kChecked, kUnchecked };

// Succeeds when the root is a real directory and no existing component of `relative_path` is a reparse point,
// checked from the root downward; components that do not exist are skipped. Messages: those of
// ResolveClientRoot, and
//   "The client directory is missing or is a reparse point."
//   "An update path contains a reparse point."
[[nodiscard]] bool RejectReparsePoints(std::wstring_view client_directory, std::wstring_view relative_path,
                                       LastComponent last, UpdateError& error);

// ResolveUpdatePath, then RejectReparsePoints with the last component: required for every path before a file
// is touched through it. A failed check leaves `full_path` empty.
[[nodiscard]] bool ResolveCheckedPath(std::wstring_view client_directory, std::wstring_view relative_path,
                                      std::wstring& full_path, UpdateError& error);

// Creates the directory `relative_path` below the client directory, including every missing ancestor, and
// verifies that each component, new or old, is a real directory. `full_path` is its full path, even when a
// component could not be created or is unsafe. What was created before a failure stays. Messages: those of
// ResolveCheckedPath, and
//   "Could not create an update directory: " + Windows text
//   "An update directory is unsafe."   a component is a plain file or a reparse point
[[nodiscard]] bool CreateUpdateDirectory(std::wstring_view client_directory, std::wstring_view relative_path,
                                         std::wstring& full_path, UpdateError& error);

// The full path of the running program; empty when Windows cannot tell.
[[nodiscard]] std::wstring RunningProgramPath();

// The part of a relative path before its last separator; empty for a name at the top.
[[nodiscard]] std::wstring_view ParentOfRelativePath(std::wstring_view relative_path) noexcept;

}  // namespace talvex
