#pragma once

// What lies at a path, and the one rule for a regular file: no directory, no reparse point, exactly one link.
// Every file is opened as itself, never through a reparse point, so that a link planted in the client
// directory cannot redirect a read, a hash or a flush. Paths are used as given; callers have resolved them.

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "core/owned_handle.h"
#include "core/update_error.h"

namespace talvex {

// What the attributes of a path say. Only Windows' word that there is nothing counts as absence: were a look
// that failed for another reason taken for it, rollback would leave a new file in its place, or remove an old
// one. Nor does such a look prove that something is there: a deleted file that a scanner still has open
// answers "access denied", and is gone a moment later.
enum class PathKind { kAbsent, kFile, kDirectory, kReparsePoint, kUnknown };

// What an existing path with these attributes is.
[[nodiscard]] PathKind KindOfAttributes(DWORD attributes) noexcept;

// Looks at `path` itself. After kUnknown the last error is why.
[[nodiscard]] PathKind ProbePath(const std::wstring& path);

// Whether something exists at `path`, of whatever kind, or cannot be ruled out.
[[nodiscard]] bool MayExist(const std::wstring& path);

// Whether `path` is a directory and not a reparse point.
[[nodiscard]] bool IsRealDirectory(const std::wstring& path);

// What an inspection of a file says.
enum class FileState {
  kAbsent,
  kNotRegular,   // a directory or a reparse point
  kUnsafeLinks,  // more than one link, or no longer what it looked like
  kRegular,
  kUnknown,  // a call failed; the last error is why
};

// Looks at `path` and then opens it as itself. Asks for attributes only, so that it works while others use
// the file.
[[nodiscard]] FileState InspectFile(const std::wstring& path);

// Whether an open file is a regular one. False too when Windows does not tell.
[[nodiscard]] bool IsRegularFile(HANDLE file) noexcept;

// The two messages with which the readers of regular files differ.
struct RegularFileMessages {
  std::wstring_view open_failed;  // prefix of the Windows text
  std::wstring_view not_regular;  // a sentence: too large, no size, a reparse point, a second link
};

// Opens the regular file at `path` for reading and yields its `size` in bytes; a file of exactly
// `size_limit` passes. It is shared for reading only, so that nobody can write, move or delete the file
// while the handle is open. A failure yields an invalid handle, size 0 and one of `messages`.
[[nodiscard]] OwnedHandle OpenRegularFileForRead(const std::wstring& path, std::uint64_t size_limit,
                                                 const RegularFileMessages& messages, std::uint64_t& size,
                                                 UpdateError& error);

}  // namespace talvex
