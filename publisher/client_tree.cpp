#include "publisher/client_tree.h"

#include <windows.h>

#include <algorithm>
#include <set>
#include <string_view>
#include <utility>

#include "core/ascii_case.h"
#include "core/owned_handle.h"
#include "core/text_encoding.h"
#include "formats/failure_marker.h"
#include "formats/installed_state.h"
#include "formats/manifest.h"
#include "formats/relative_path.h"
#include "formats/verified_cache.h"
#include "storage/client_root.h"
#include "storage/directory_listing.h"
#include "storage/work_storage.h"

namespace talvex {
namespace {

// Windows' limits for the full path of a file, and of a directory, which leaves room for a short file name.
constexpr std::size_t kFullPathLimit = 259;
constexpr std::size_t kFullDirectoryPathLimit = 247;
// The full path of a staged file consists of the client directory, the work directory, the digest of the
// manifest, "files" and the relative path, a separator between each two. What stands between the first and
// the last has this length.
constexpr std::size_t kStagedPathOverhead =
    1 + kWorkDirectoryName.size() + 1 + kDigestHexLength + 1 + std::wstring_view(L"files").size() + 1;
constexpr std::size_t kShortestClientDirectory = 4;  // "C:\a"; the root of a drive is none

constexpr std::wstring_view kLink = L"is a link or another kind of reparse point.";
constexpr std::wstring_view kHardLinks = L"has more than one hard link.";
constexpr std::wstring_view kEmptyFile = L"is empty, and the updater cannot manage empty files.";
constexpr std::wstring_view kTooLarge = L"is larger than 8 GiB.";
constexpr std::wstring_view kUnreadable = L"cannot be opened.";
constexpr std::wstring_view kTooLongToStage = L"is too long a path to be staged in any client directory.";
constexpr std::wstring_view kSameButCase = L"differs from another path only in the case of letters.";
constexpr std::wstring_view kListingFailed = L"Could not list ";

// A client directory that was updated before holds the updater's records; they belong to no release.
bool IsUpdatersOwn(std::wstring_view name) {
  const std::wstring folded = FoldAsciiCase(name);
  return folded.starts_with(FoldAsciiCase(kInstalledStateFileName)) ||
         folded.starts_with(FoldAsciiCase(kFailureMarkerFileName)) || folded == kWorkDirectoryName ||
         folded == kCacheDirectoryName;
}

// The longest client directory in which a file with this relative path can be staged; 0 when there is none.
std::size_t LongestClientDirectoryFor(std::wstring_view relative_path) {
  const std::size_t file = kStagedPathOverhead + relative_path.size();
  const std::size_t parent = ParentOfRelativePath(relative_path).size();
  const std::size_t directory =
      kStagedPathOverhead + parent - (parent == 0 ? 1 : 0);  // no separator at its end
  return file >= kFullPathLimit || directory >= kFullDirectoryPathLimit
             ? 0
             : std::min(kFullPathLimit - file, kFullDirectoryPathLimit - directory);
}

// Why the file cannot be part of a release; empty when it can.
std::wstring_view JudgeFile(const std::wstring& full_path, std::uint64_t& size) {
  const OwnedHandle file(CreateFileW(full_path.c_str(), FILE_READ_ATTRIBUTES,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                     OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  BY_HANDLE_FILE_INFORMATION information{};
  if (!file.IsValid() || !GetFileInformationByHandle(file.Get(), &information)) {
    return kUnreadable;
  }
  if ((information.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    return kLink;
  }
  if (information.nNumberOfLinks != 1) {
    return kHardLinks;
  }
  size = (std::uint64_t{information.nFileSizeHigh} << 32) | information.nFileSizeLow;
  if (size == 0) {
    return kEmptyFile;
  }
  return size > kManagedFileSizeLimit ? kTooLarge : std::wstring_view();
}

class TreeWalk {
 public:
  TreeWalk(const std::wstring& client_directory, ClientTree& tree)
      : client_directory_(client_directory), tree_(tree) {}

  // `directory` is relative, with "\"; empty for the client directory itself.
  bool List(const std::wstring& directory, UpdateError& error) {
    const std::wstring full_path = JoinPath(client_directory_, directory);
    DirectoryListing listing(full_path);
    for (; listing.AtEntry(); listing.Advance()) {
      if (!TakeEntry(listing, JoinPath(directory, listing.Name()), error)) {
        return false;
      }
    }
    // A listing that ended early would publish a release with files missing.
    const DWORD code = listing.OpenError() != ERROR_SUCCESS ? listing.OpenError() : listing.EndError();
    if (code != ERROR_SUCCESS) {
      SetWindowsError(error, std::wstring(kListingFailed) + full_path, code);
      return false;
    }
    return true;
  }

 private:
  bool TakeEntry(const DirectoryListing& listing, const std::wstring& path, UpdateError& error) {
    if (IsUpdatersOwn(path)) {
      tree_.skipped.push_back(path);
      return true;
    }
    if (listing.IsReparsePoint()) {
      RefusePath(path, kLink);
      return true;
    }
    ClientFile file;
    file.path = WideToUtf8(path);
    std::replace(file.path.begin(), file.path.end(), '\\', '/');
    // A refused directory is not walked: one line about it says more than one about each of its files.
    std::wstring normalised_path;
    UpdateError reason;
    if (!ValidateRelativePath(file.path, normalised_path, reason)) {
      RefusePath(path, reason.Message());
      return true;
    }
    if (listing.IsDirectory()) {
      return List(path, error);
    }
    if (LongestClientDirectoryFor(path) < kShortestClientDirectory) {
      RefusePath(path, kTooLongToStage);
      return true;
    }
    file.full_path = JoinPath(client_directory_, path);
    if (const std::wstring_view reason_to_refuse = JudgeFile(file.full_path, file.size);
        !reason_to_refuse.empty()) {
      RefusePath(path, reason_to_refuse);
    } else if (!folded_paths_.insert(FoldAsciiCase(path)).second) {
      RefusePath(path, kSameButCase);  // seen where the tree lies on a file system that tells case apart
    } else {
      tree_.files.push_back(std::move(file));
    }
    return true;
  }

  void RefusePath(const std::wstring& path, std::wstring_view reason) {
    tree_.refusals.push_back(path + L": " + std::wstring(reason));
  }

  const std::wstring& client_directory_;
  ClientTree& tree_;
  std::set<std::wstring> folded_paths_;
};

}  // namespace

bool ListClientFiles(const std::wstring& client_directory, ClientTree& tree, UpdateError& error) {
  tree = {};
  if (!TreeWalk(client_directory, tree).List({}, error)) {
    return false;
  }
  std::sort(tree.files.begin(), tree.files.end(),
            [](const ClientFile& left, const ClientFile& right) { return left.path < right.path; });
  std::sort(tree.skipped.begin(), tree.skipped.end());
  std::sort(tree.refusals.begin(), tree.refusals.end());
  return true;
}

std::size_t LongestClientDirectory(const ClientTree& tree) {
  std::size_t longest = kFullDirectoryPathLimit;
  for (const ClientFile& file : tree.files) {
    longest = std::min(longest, LongestClientDirectoryFor(Utf8ToWide(file.path)));
  }
  return longest;
}

}  // namespace talvex
