#pragma once

// What exists at a path, and the one rule for a regular file: no directory, no reparse point, exactly one
// link. Every file is opened as itself, never through a reparse point, so that a link planted in the client
// directory cannot redirect a read, a hash or a flush. Paths are used as given; callers have resolved them.

#include <windows.h>

#include <cstdint>
#include <string>

#include "core/owned_handle.h"
#include "core/update_error.h"

namespace talvex {

// What the attributes of a path say. Only "not found" counts as absence: if a probe that failed for another
// reason did too, rollback would leave a new file in place, or remove an old one. Nor does such a failure
// prove that something is there: a deleted file that a scanner still has open gives "access denied", and is
// gone a moment later.
enum class PathKind { kAbsent, kFile, kDirectory, kReparsePoint, kUnknown };

// The kind of an existing path with these attributes.
[[nodiscard]] PathKind KindOfAttributes(DWORD attributes) noexcept;

// Probes `path` itself, not what a link leads to. After kUnknown the last error is the reason.
[[nodiscard]] PathKind ProbePath(const std::wstring& path);

// Whether something exists at `path`, of whatever kind, or cannot be ruled out.
[[nodiscard]] bool MayExist(const std::wstring& path);

// Whether `path` is a directory and not a reparse point.
[[nodiscard]] bool IsRealDirectory(const std::wstring& path);

// What Windows says of an open file.
struct FileInformation {
  DWORD attributes = 0;
  DWORD links = 0;
  std::uint64_t size = 0;  // in bytes
};

// Needs no more access than FILE_READ_ATTRIBUTES. A failure leaves `information` alone; the last error is the
// reason.
[[nodiscard]] bool GetFileInformation(HANDLE file, FileInformation& information) noexcept;

// Whether the file at `path` can be opened for reading: nobody who has it open keeps others from that.
[[nodiscard]] bool CanBeRead(const std::wstring& path);

// The result of inspecting a file.
enum class FileState {
  kAbsent,
  kNotRegular,   // a directory or a reparse point
  kUnsafeLinks,  // more than one link, or no longer a regular file when opened
  kRegular,
  kUnknown,  // a call failed; the last error is the reason
};

// Probes `path` and then opens it as itself, for attributes only, so that it works while others use the file.
[[nodiscard]] FileState InspectFile(const std::wstring& path);

// Whether an open file is a regular one. Also false when Windows cannot tell.
[[nodiscard]] bool IsRegularFile(HANDLE file) noexcept;

// The two messages in which the readers of regular files differ.
struct RegularFileMessages {
  const wchar_t* open_failed;  // prefix of the Windows text
  const wchar_t* not_regular;  // a sentence: too large, no size, a reparse point, a second link
};

// Opens the regular file at `path` for reading and sets `size` to its size in bytes; a file of exactly
// `size_limit` passes. It is shared for reading only, so that nobody can write, move or delete the file while
// the handle is open. A failure returns an invalid handle, size 0 and one of `messages`.
[[nodiscard]] OwnedHandle OpenRegularFileForRead(const std::wstring& path, std::uint64_t size_limit,
                                                 const RegularFileMessages& messages, std::uint64_t& size,
                                                 UpdateError& error);

}  // namespace talvex
