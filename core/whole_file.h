#pragma once

// Small files read and written whole. Paths are used as given; callers have resolved them.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "core/update_error.h"

namespace talvex {

using ByteBuffer = std::vector<std::byte>;

// Files are read, hashed and written in pieces of at most this many bytes.
inline constexpr std::size_t kFilePieceSize = 1'048'576;

// Reads the regular file at `path` whole into `bytes`. `size_limit` is in bytes. Bytes that are appended
// while it is read are left out. `bytes` is emptied first, and every failure leaves it empty. Messages:
//   "Could not open file: " + Windows text              the open failed
//   "The file is too large or is not a regular file."   above the limit; a reparse point; a second link
//   "Could not read the complete file."                 a read failed or ended early
[[nodiscard]] bool ReadWholeFile(const std::wstring& path, std::uint32_t size_limit, ByteBuffer& bytes,
                                 UpdateError& error);

// Creates `path`, which must not exist, writes `bytes` and forces them to disk. The creation is retried on
// transient errors; a failed write or flush deletes what was created. Messages, each followed by the Windows
// text:
//   "Could not create file"   also when the name exists; the existing file is left alone
//   "Could not write file"    includes a short write, whose text may be the one for success
//   "Could not flush file"
[[nodiscard]] bool WriteNewFile(const std::wstring& path, std::span<const std::byte> bytes,
                                UpdateError& error);

// The two halves of a replacement, used separately where two files are replaced together. MoveIntoPlace moves
// a written file over `path`, written through; false leaves the last attempt's code as the last error.
// DeleteTemporaryFile deletes a file that may or may not exist. Both are retried on transient errors.
[[nodiscard]] bool MoveIntoPlace(const std::wstring& temporary_path, const std::wstring& path);
void DeleteTemporaryFile(const std::wstring& path);

// Whether the text for a failed move is a prefix of the Windows text or a whole sentence.
enum class MoveFailureText { kPrefixOfWindowsText, kSentence };

// Replaces the file at `path` with `bytes` as a whole: writes them to `temporary_path` with WriteNewFile and
// moves that over `path`, written through. A file at `temporary_path` is deleted first. Each of the three
// steps is retried on transient errors. A failed write keeps WriteNewFile's message; a failed move gives
// `move_failed` and deletes the temporary file. In both cases the old file is still in place.
[[nodiscard]] bool ReplaceWholeFile(const std::wstring& path, const std::wstring& temporary_path,
                                    std::span<const std::byte> bytes, const wchar_t* move_failed,
                                    MoveFailureText form, UpdateError& error);

}  // namespace talvex
