#include "publisher/path_room.h"

#include <algorithm>
#include <string>

#include "storage/client_root.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr std::size_t kMinClientDirectory = 4;  // "C:\a"; a drive root is not allowed

// The longest client directory in which a file with this relative path can be staged; 0 when there is none.
std::size_t LongestClientDirectoryFor(std::wstring_view relative_path) {
  const std::wstring staged_path = JoinPath(FilesDirectory(StageRoot(L"", Sha256Digest{})), relative_path);
  // The part after the client directory, separator included.
  const std::size_t file = 1 + staged_path.size();
  const std::size_t directory = 1 + ParentOfRelativePath(staged_path).size();
  return file >= kMaxFullPath || directory >= kMaxFullDirectoryPath
             ? 0
             : std::min(kMaxFullPath - file, kMaxFullDirectoryPath - directory);
}

}  // namespace

std::size_t LongestClientDirectory(const Manifest& manifest) {
  std::size_t longest = kMaxFullDirectoryPath;
  for (const ManifestEntry& entry : manifest.entries) {
    longest = std::min(longest, LongestClientDirectoryFor(entry.normalised_path));
  }
  return longest;
}

std::wstring DescribeRoom(const Manifest& manifest) {
  return L"It can be installed in client directories of up to " +
         std::to_wstring(LongestClientDirectory(manifest)) + L" characters.";
}

bool FitsSomeClientDirectory(std::wstring_view relative_path) {
  return LongestClientDirectoryFor(relative_path) >= kMinClientDirectory;
}

}  // namespace talvex
