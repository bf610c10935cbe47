#include "formats/managed_file.h"

#include "core/owned_handle.h"

namespace talvex {

bool VerifyManagedFile(const std::wstring& path, const ManifestEntry& entry, std::uint64_t size_limit,
                       const wchar_t* mismatch, UpdateError& error, HashProgressCallback progress,
                       void* progress_context) {
  std::uint64_t size = 0;
  const OwnedHandle file = OpenFileForHashing(path, size_limit, size, error);
  if (!file.IsValid()) {
    return false;
  }
  Sha256Digest digest;
  if (size != entry.size || !Sha256OfOpenFile(file.Get(), digest, error, progress, progress_context) ||
      !DigestsEqual(digest, entry.digest)) {
    return RefuseUnlessExplained(error, mismatch);
  }
  return true;
}

}  // namespace talvex
