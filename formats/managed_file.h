#pragma once

// The one check that a file is the one described by a manifest entry.

#include <cstdint>
#include <string>

#include "core/owned_handle.h"
#include "core/sha256.h"
#include "core/update_error.h"
#include "formats/manifest.h"

namespace talvex {

// The unit in which people are told the sizes of files.
inline constexpr std::uint64_t kBytesPerMiB = 1'048'576;

// Verifies the file at `path` by the size and the digest of `entry`. A file above `size_limit` bytes or of
// another size is rejected before a byte of it is read: a wrong file of a terabyte costs nothing. Messages:
// those of Sha256OfFile, and
//   `mismatch`   the file is not the described one
[[nodiscard]] bool VerifyManagedFile(const std::wstring& path, const ManifestEntry& entry,
                                     std::uint64_t size_limit, const wchar_t* mismatch, UpdateError& error,
                                     HashProgressCallback progress = nullptr,
                                     void* progress_context = nullptr);

// The same, and returns the handle that was verified: the file stays as it is while it is open, because it is
// shared for reading only. Invalid on failure.
[[nodiscard]] OwnedHandle OpenVerifiedManagedFile(const std::wstring& path, const ManifestEntry& entry,
                                                  std::uint64_t size_limit, const wchar_t* mismatch,
                                                  UpdateError& error, HashProgressCallback progress = nullptr,
                                                  void* progress_context = nullptr);

}  // namespace talvex
