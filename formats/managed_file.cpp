#include "formats/managed_file.h"

namespace talvex {

OwnedHandle OpenVerifiedManagedFile(const std::wstring& path, const ManifestEntry& entry,
                                    std::uint64_t size_limit, const wchar_t* mismatch, UpdateError& error,
                                    HashProgressCallback progress, void* progress_context) {
  std::uint64_t size = 0;
  OwnedHandle file = OpenFileForHashing(path, size_limit, size, error);
  if (!file.IsValid()) {
    return file;
  }
  Sha256Digest digest;
  if (size != entry.size || !Sha256OfOpenFile(file.Get(), digest, error, progress, progress_context) ||
      !DigestsEqual(digest, entry.digest)) {
    static_cast<void>(RefuseUnlessExplained(error, mismatch));
    file.Reset();
  }
  return file;
}

bool VerifyManagedFile(const std::wstring& path, const ManifestEntry& entry, std::uint64_t size_limit,
                       const wchar_t* mismatch, UpdateError& error, HashProgressCallback progress,
                       void* progress_context) {
  return OpenVerifiedManagedFile(path, entry, size_limit, mismatch, error, progress, progress_context)
      .IsValid();
}

}  // namespace talvex
