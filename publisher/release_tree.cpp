#include "publisher/release_tree.h"

#include <windows.h>

#include <algorithm>
#include <numeric>
#include <set>
#include <string_view>
#include <utility>

#include "core/ascii_case.h"
#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "formats/manifest.h"
#include "formats/relative_path.h"
#include "publisher/path_room.h"
#include "storage/client_root.h"
#include "storage/directory_listing.h"

namespace talvex {
namespace {

constexpr wchar_t kLink[] =
    L"is a link or another kind of reparse point, which a release cannot hold. "
    L"Put the file itself in its place.";
constexpr wchar_t kHardLinks[] = L"has more than one hard link. Copy it, so that it has one.";
constexpr wchar_t kEmptyFile[] =
    L"is empty, and the updater cannot manage empty files. Leave it out, or write something into it.";
constexpr wchar_t kTooLarge[] = L"is larger than 8 GiB. Divide it.";
constexpr wchar_t kUnreadable[] = L"cannot be opened";
constexpr wchar_t kUnreadableRemedy[] = L" Close the program that uses it, or see to its rights.";
constexpr wchar_t kTooLongToStage[] = L"is too long a path to be staged in any client directory. Shorten it.";
constexpr wchar_t kSameButCase[] =
    L"differs from another path only in the case of letters, and is the same to Windows. Rename one.";
constexpr wchar_t kRename[] = L" Rename it.";
constexpr wchar_t kListingFailed[] = L"Could not list ";

// The reason why the file cannot be part of a release; empty when it can.
std::wstring CheckFile(const std::wstring& full_path, std::uint64_t& size) {
  const OwnedHandle file(CreateFileW(full_path.c_str(), FILE_READ_ATTRIBUTES,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                     OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  FileInformation information;
  if (!file.IsValid() || !GetFileInformation(file.Get(), information)) {
    const DWORD code = GetLastError();
    UpdateError error;
    SetWindowsError(error, kUnreadable, code);
    return error.Message() + kUnreadableRemedy;
  }
  if ((information.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    return kLink;
  }
  if (information.links != 1) {
    return kHardLinks;
  }
  size = information.size;
  if (size == 0) {
    return kEmptyFile;
  }
  return size > kManagedFileSizeLimit ? kTooLarge : std::wstring();
}

class TreeWalk {
 public:
  TreeWalk(const std::wstring& root, FileCheck check, ReleaseTree& tree, Findings& findings)
      : root_(root), check_(check), tree_(tree), findings_(findings) {}

  // `directory` is relative, with "\"; empty for the root itself.
  bool List(const std::wstring& directory, UpdateError& error) {
    const std::wstring full_path = JoinPath(root_, directory);
    DirectoryListing listing(full_path);
    for (; listing.AtEntry(); listing.Advance()) {
      if (!TakeEntry(listing, JoinPath(directory, listing.Name()), error)) {
        return false;
      }
    }
    // A listing that ended early would publish a release with files missing.
    if (const DWORD code = listing.Error(); code != ERROR_SUCCESS) {
      return RefuseWithWindowsError(error, (kListingFailed + full_path).c_str(), code);
    }
    return true;
  }

 private:
  bool TakeEntry(const DirectoryListing& listing, const std::wstring& path, UpdateError& error) {
    // A client directory that was updated before contains the updater's records; they belong to no release.
    if (TargetsUpdaterState(path)) {
      tree_.skipped.push_back(path);
      return true;
    }
    if (listing.IsReparsePoint()) {
      findings_.AddError(path, kLink);
      return true;
    }
    ReleaseFile file;
    file.path = WideToUtf8(path);
    std::replace(file.path.begin(), file.path.end(), '\\', '/');
    // A rejected directory is not walked: one line about it is clearer than one about each of its files.
    UpdateError reason;
    if (!ValidateRelativePath(file.path, file.normalised_path, reason)) {
      findings_.AddError(path, reason.Message() + kRename);
      return true;
    }
    // Happens when the tree is on a case-sensitive file system.
    if (!folded_paths_.insert(FoldAsciiCase(path)).second) {
      findings_.AddError(path, kSameButCase);
      return true;
    }
    if (listing.IsDirectory()) {
      return List(path, error);
    }
    if (!FitsSomeClientDirectory(path)) {
      findings_.AddError(path, kTooLongToStage);
      return true;
    }
    file.full_path = JoinPath(root_, path);
    file.size = listing.Size();
    if (const std::wstring reason_to_refuse =
            check_ == FileCheck::kEachFile ? CheckFile(file.full_path, file.size) : std::wstring();
        !reason_to_refuse.empty()) {
      findings_.AddError(path, reason_to_refuse);
    } else {
      tree_.files.push_back(std::move(file));
    }
    return true;
  }

  const std::wstring& root_;
  const FileCheck check_;
  ReleaseTree& tree_;
  Findings& findings_;
  std::set<std::wstring> folded_paths_;
};

}  // namespace

bool ListReleaseFiles(const std::wstring& directory, FileCheck check, ReleaseTree& tree, Findings& findings,
                      UpdateError& error) {
  tree = {};
  if (!TreeWalk(directory, check, tree, findings).List({}, error)) {
    return false;
  }
  std::sort(tree.files.begin(), tree.files.end(),
            [](const ReleaseFile& left, const ReleaseFile& right) { return left.path < right.path; });
  std::sort(tree.skipped.begin(), tree.skipped.end());
  return true;
}

std::uint64_t TotalSize(const ReleaseTree& tree) {
  return std::accumulate(tree.files.begin(), tree.files.end(), std::uint64_t{0},
                         [](std::uint64_t sum, const ReleaseFile& file) { return sum + file.size; });
}

}  // namespace talvex
