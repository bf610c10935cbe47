#pragma once

// Small files read and written whole. Every file is opened as itself, never through a reparse point, and has
// to be a plain file with one link, so that a link planted in the client directory cannot redirect a read, a
// hash or a flush. Paths are used as given; callers have resolved them.

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/owned_handle.h"
#include "core/update_error.h"

namespace talvex {

using ByteBuffer = std::vector<std::byte>;

// Files are read, hashed and written in pieces of at most this many bytes.
inline constexpr std::size_t kFilePieceSize = 1'048'576;

// Whether an open file is a regular one: no directory, no reparse point, exactly one link. False too when
// Windows does not tell.
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

// Reads the regular file at `path` whole into `bytes`. `size_limit` is in bytes. Bytes that are appended
// while it is read are left out. `bytes` is emptied first, and every failure leaves it empty. Messages:
//   "Could not open file: " + Windows text              the open failed
//   "The file is too large or is not a regular file."   above the limit; a reparse point; a second link
//   "Could not read the complete file."                 a read failed or ended early
[[nodiscard]] bool ReadWholeFile(const std::wstring& path, std::uint32_t size_limit, ByteBuffer& bytes,
                                 UpdateError& error);

// Creates `path`, which must not exist, writes `bytes` and forces them to disk. A failed write or flush
// deletes what was created. Messages, each followed by the Windows text:
//   "Could not create file"   also when the name exists; the existing file is left alone
//   "Could not write file"    a short write included, whose text can be the one for success
//   "Could not flush file"
[[nodiscard]] bool WriteNewFile(const std::wstring& path, std::span<const std::byte> bytes,
                                UpdateError& error);

// Whether the text for a failed move is a phrase that the Windows text follows, or a whole sentence.
enum class MoveFailureText { kPrefixOfWindowsText, kSentence };

// Puts `bytes` in the place of the file at `path`, whole: writes them to `temporary_path` with WriteNewFile
// and moves that over `path`, written through. Whatever lay at `temporary_path` is deleted first. A failed
// write keeps WriteNewFile's message; a failed move gives `move_failed` and deletes the temporary file. In
// both cases the old file is still in its place.
[[nodiscard]] bool ReplaceWholeFile(const std::wstring& path, const std::wstring& temporary_path,
                                    std::span<const std::byte> bytes, std::wstring_view move_failed,
                                    MoveFailureText form, UpdateError& error);

}  // namespace talvex
