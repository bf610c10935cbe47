#include "publisher/client_tree.h"

#include <windows.h>

#include <algorithm>
#include <set>
#include <string_view>
#include <utility>

#include "core/ascii_case.h"
#include "core/owned_handle.h"
#include "core/text_encoding.h"
#include "formats/manifest.h"
#include "formats/relative_path.h"
#include "storage/client_root.h"
#include "storage/directory_listing.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

// Windows limits for the full path of a file, and of a directory, which leave room for a short file name.
constexpr std::size_t kFullPathLimit = 259;
constexpr std::size_t kFullDirectoryPathLimit = 247;
constexpr std::size_t kShortestClientDirectory = 4;  // "C:\a"; a drive root is not allowed

constexpr wchar_t kLink[] = L"is a link or another kind of reparse point.";
constexpr wchar_t kHardLinks[] = L"has more than one hard link.";
constexpr wchar_t kEmptyFile[] = L"is empty, and the updater cannot manage empty files.";
constexpr wchar_t kTooLarge[] = L"is larger than 8 GiB.";
constexpr wchar_t kUnreadable[] = L"cannot be opened.";
constexpr wchar_t kTooLongToStage[] = L"is too long a path to be staged in any client directory.";
constexpr wchar_t kSameButCase[] = L"differs from another path only in the case of letters.";
constexpr wchar_t kListingFailed[] = L"Could not list ";

// A client directory that was updated before contains the updater's records; they belong to no release.
bool IsUpdatersOwn(std::wstring_view name) {
  const std::wstring folded = FoldAsciiCase(name);
  return folded.starts_with(FoldAsciiCase(kInstalledStateFileName)) ||
         folded.starts_with(FoldAsciiCase(kFailureMarkerFileName)) || folded == kWorkDirectoryName ||
         folded == kCacheDirectoryName;
}

// The longest client directory in which a file with this relative path can be staged; 0 when there is none.
std::size_t LongestClientDirectoryFor(std::wstring_view relative_path) {
  const std::wstring staged_path = JoinPath(FilesDirectory(StageRoot(L"", Sha256Digest{})), relative_path);
  // The part after the client directory, separator included.
  const std::size_t file = 1 + staged_path.size();
  const std::size_t directory = 1 + ParentOfRelativePath(staged_path).size();
  return file >= kFullPathLimit || directory >= kFullDirectoryPathLimit
             ? 0
             : std::min(kFullPathLimit - file, kFullDirectoryPathLimit - directory);
}

// The reason why the file cannot be part of a release; empty when it can.
std::wstring_view CheckFile(const std::wstring& full_path, std::uint64_t& size) {
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
      return RefuseWithWindowsError(error, (kListingFailed + full_path).c_str(), code);
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
    // A rejected directory is not walked: one line about it is clearer than one about each of its files.
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
    if (const std::wstring_view reason_to_refuse = CheckFile(file.full_path, file.size);
        !reason_to_refuse.empty()) {
      RefusePath(path, reason_to_refuse);
    } else if (!folded_paths_.insert(FoldAsciiCase(path)).second) {
      RefusePath(path, kSameButCase);  // happens when the tree is on a case-sensitive file system
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
