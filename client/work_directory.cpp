#include "client/work_directory.h"

#include <windows.h>

#include <vector>

#include "core/ascii_case.h"
#include "core/regular_file.h"
#include "storage/client_notes.h"
#include "storage/client_root.h"
#include "storage/directory_listing.h"
#include "storage/update_layout.h"
#include "storage/work_storage.h"

namespace talvex::client {
namespace {

constexpr wchar_t kFileStays[] = L"Could not remove a file of an earlier update.";

// The path of an entry, of which Windows changes nothing: without the prefix, "previous." would be the
// directory named "previous".
std::wstring ExactPath(const std::wstring& path) {
  return L"\\\\?\\" + path;
}

std::vector<std::wstring> NamesIn(const std::wstring& directory) {
  std::vector<std::wstring> names;
  for (DirectoryListing listing(directory); listing.AtEntry(); listing.Advance()) {
    names.emplace_back(listing.Name());
  }
  return names;
}

bool RemoveEntry(const std::wstring& path, UpdateError& error) {
  if (ProbePath(path) != PathKind::kFile) {
    return RemoveWorkTree(path, error);
  }
  SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);  // a read-only file could not be deleted
  return DeleteFileW(path.c_str()) || Refuse(error, kFileStays);
}

}  // namespace

bool MoveAside(const std::wstring& client_root, const std::wstring& path) {
  const std::wstring exact = ExactPath(path);
  for (ULONGLONG number = GetTickCount64();; ++number) {
    const std::wstring aside = AsidePathPrefix(client_root) + std::to_wstring(number);
    if (MoveFileExW(exact.c_str(), aside.c_str(), 0)) {
      return true;
    }
    if (GetLastError() != ERROR_ALREADY_EXISTS) {
      return false;
    }
  }
}

bool BlocksDirectory(const std::wstring& path) {
  const PathKind kind = ProbePath(path);
  return kind == PathKind::kFile || kind == PathKind::kReparsePoint;
}

void MakeWorkDirectoryUsable(const std::wstring& client_root) {
  for (const std::wstring& directory : {WorkDirectory(client_root), PreviousDirectory(client_root)}) {
    if (BlocksDirectory(directory)) {
      static_cast<void>(MoveAside(client_root, directory));
    }
  }
}

bool MoveUnneededWorkAside(const std::wstring& client_root) {
  return !MayExist(RollbackJournalPath(PreviousDirectory(client_root))) &&
         MoveAside(client_root, WorkDirectory(client_root));
}

bool ClearPrevious(const std::wstring& client_root, UpdateError& error) {
  const std::wstring previous = PreviousDirectory(client_root);
  return RemovePreviousDirectory(previous, error) || MoveAside(client_root, previous) ||
         MoveAside(client_root, WorkDirectory(client_root));
}

bool ClearFileName(const std::wstring& client_root, const std::wstring& path, UpdateError& error) {
  switch (ProbePath(path)) {
    case PathKind::kAbsent:
      return true;
    case PathKind::kFile:
      if (InspectFile(path) == FileState::kUnsafeLinks) {  // whoever writes to it writes to a stranger's file
        return DeleteFileW(path.c_str()) || MoveAside(client_root, path) || Refuse(error, kFileStays);
      }
      SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
      return true;
    default:
      return RemoveWorkTree(path, error) || MoveAside(client_root, path);
  }
}

void ClearRecordNames(const std::wstring& client_root) {
  const std::wstring marker = FailureMarkerPath(client_root);
  std::vector<std::wstring> paths = {InstalledStatePath(client_root), marker, TemporaryPath(marker)};
  const std::wstring cache = CacheDirectory(client_root);
  if (BlocksDirectory(cache)) {
    static_cast<void>(MoveAside(client_root, cache));
  } else if (IsRealDirectory(cache)) {
    const SignedPairPaths pair = SignedPairIn(cache);
    paths.insert(paths.end(), {pair.manifest, pair.signature, TemporaryPath(pair.manifest),
                               TemporaryPath(pair.signature)});
  }
  UpdateError unreported;
  for (const std::wstring& path : paths) {
    static_cast<void>(ClearFileName(client_root, path, unreported));
  }
}

bool ClearOtherStages(const std::wstring& client_root, std::wstring_view kept_stage, UpdateError& error) {
  UpdateError unreported;
  for (const std::wstring& name : NamesIn(client_root)) {
    if (name.starts_with(AsidePathPrefix(L""))) {
      static_cast<void>(RemoveEntry(ExactPath(JoinPath(client_root, name)), unreported));
    }
  }
  const std::wstring work_directory = WorkDirectory(client_root);
  for (const std::wstring& name : NamesIn(work_directory)) {
    if (EqualIgnoringAsciiCase(name, kept_stage) || EqualIgnoringAsciiCase(name, kPreviousDirectoryName)) {
      continue;
    }
    const std::wstring path = JoinPath(work_directory, name);
    if (!RemoveEntry(ExactPath(path), error) && !MoveAside(client_root, path)) {
      return MoveUnneededWorkAside(client_root);
    }
  }
  return true;
}

}  // namespace talvex::client
