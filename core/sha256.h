#pragma once

// SHA-256 of buffers and files, computed by Windows (CNG). Each call opens and closes its own provider, so
// the functions can be called from any thread.

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "core/cng.h"
#include "core/owned_handle.h"
#include "core/sha256_digest.h"
#include "core/update_error.h"

namespace talvex {

// The message of Sha256OfBuffer, for a caller that hashes in pieces of its own.
extern const wchar_t kDigestFailed[];

// One SHA-256 computation, for a caller that has other uses for the bytes as well. False: CNG failed.
class Sha256Hash {
 public:
  [[nodiscard]] bool Prepare();  // before the first Add
  [[nodiscard]] bool Add(std::span<const std::byte> bytes);
  [[nodiscard]] bool Finish(Sha256Digest& digest);  // once; a failure leaves `digest` as it was

 private:
  // Order: the hash is destroyed before its memory and its provider.
  std::vector<UCHAR> object_;
  OwnedAlgorithmProvider provider_;
  OwnedHash hash_;
};

// Hashes `bytes`, which may be empty. A failure leaves `digest` zeroed, with the message
//   "Windows could not calculate a SHA-256 digest."
[[nodiscard]] bool Sha256OfBuffer(std::span<const std::byte> bytes, Sha256Digest& digest, UpdateError& error);

// Called after each piece of a file with the number of bytes hashed so far.
using HashProgressCallback = void (*)(std::uint64_t bytes_hashed, void* context);

// Hashes the regular file at `path` in pieces of 1 MiB through one buffer. `size_limit` is in bytes; a larger
// file is rejected before anything is read. `size` is set to the size found when the file was opened, or to 0
// when it was rejected or could not be opened. Does not compare with an expected value; the callers do. A
// failure leaves `digest` zeroed. Messages:
//   "Could not open file for hashing: " + Windows text
//   "The update target is too large or is not a regular file."   above the limit; reparse point; second link
//   "Windows could not hash an update target."                   a read or a CNG call failed
[[nodiscard]] bool Sha256OfFile(const std::wstring& path, std::uint64_t size_limit, Sha256Digest& digest,
                                std::uint64_t& size, UpdateError& error,
                                HashProgressCallback progress = nullptr, void* progress_context = nullptr);

// The two halves of Sha256OfFile, for a caller that checks the size before anything is read. The file is
// hashed from its current position to its end.
[[nodiscard]] OwnedHandle OpenFileForHashing(const std::wstring& path, std::uint64_t size_limit,
                                             std::uint64_t& size, UpdateError& error);
[[nodiscard]] bool Sha256OfOpenFile(HANDLE file, Sha256Digest& digest, UpdateError& error,
                                    HashProgressCallback progress = nullptr,
                                    void* progress_context = nullptr);

}  // namespace talvex
