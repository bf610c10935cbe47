#include "storage/work_storage.h"

#include <windows.h>

#include "core/ascii_case.h"
#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "storage/client_root.h"
#include "storage/directory_listing.h"
#include "storage/held_directory.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr wchar_t kTreeUnsafe[] = L"An updater work directory is unsafe.";
constexpr wchar_t kTreeUnreadable[] = L"Could not inspect an updater work directory.";
constexpr wchar_t kTreeHasReparsePoint[] = L"An updater work directory contains a reparse point.";
constexpr wchar_t kTreeFileStays[] = L"Could not remove old updater work data.";
constexpr wchar_t kTreeDirectoryStays[] = L"Could not remove an old updater directory.";
constexpr wchar_t kStorageHasReparsePoint[] = L"Updater storage contains an unsafe reparse point.";
constexpr wchar_t kStorageFileStays[] = L"Could not remove stale updater data.";

void ClearAttributes(const std::wstring& path) {
  SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);  // a read-only file could not be deleted
}

bool RemoveListedEntries(const std::wstring& directory, DirectoryListing& listing, UpdateError& error) {
  for (; listing.AtEntry(); listing.Advance()) {
    const std::wstring child = JoinPath(directory, listing.Name());
    if (listing.IsReparsePoint()) {
      return Refuse(error, kTreeHasReparsePoint);
    }
    if (listing.IsDirectory()) {
      if (!RemoveWorkTree(child, error)) {
        return false;
      }
      continue;
    }
    ClearAttributes(child);
    if (!DeleteFileW(child.c_str())) {
      return Refuse(error, kTreeFileStays);
    }
  }
  return true;
}

// A directory or a reparse point of that name is not a journal, and is left to the walk. A successful
// deletion is not enough: while another process has the journal open, it still exists.
bool RemoveJournal(const std::wstring& path, UpdateError& error) {
  const PathKind kind = ProbePath(path);
  if (kind == PathKind::kDirectory || kind == PathKind::kReparsePoint) {
    return true;
  }
  if (kind == PathKind::kFile) {
    ClearAttributes(path);
    DeleteFileW(path.c_str());
  }
  return !MayExist(path) || Refuse(error, kTreeFileStays);
}

enum class Journal { kNone, kFirst };

// `journal`: whether the directory may hold one, which is then removed first.
bool RemoveTree(const std::wstring& directory, Journal journal, UpdateError& error) {
  const PathKind kind = ProbePath(directory);
  if (kind != PathKind::kDirectory) {
    // What cannot be inspected may be there, and must not count as removed.
    return kind == PathKind::kAbsent ||
           Refuse(error, kind == PathKind::kUnknown ? kTreeUnreadable : kTreeUnsafe);
  }
  OwnedHandle held;
  switch (HoldDirectory(directory, held)) {
    case PathKind::kDirectory:
      break;
    case PathKind::kAbsent:
      return true;
    case PathKind::kUnknown:
      return Refuse(error, kTreeUnreadable);
    default:
      return Refuse(error, kTreeUnsafe);
  }
  if (journal == Journal::kFirst && !RemoveJournal(RollbackJournalPath(directory), error)) {
    return false;
  }
  bool has_entries = true;  // "." and ".." at least
  {
    DirectoryListing listing(directory);
    has_entries = listing.OpenError() != ERROR_FILE_NOT_FOUND;
    if (has_entries && listing.OpenError() != ERROR_SUCCESS) {
      return Refuse(error, kTreeUnreadable);
    }
    if (!RemoveListedEntries(directory, listing, error)) {
      return false;
    }
  }
  // A held directory cannot be removed. If an empty directory or a link takes its place now, that is removed,
  // but never entered.
  held.Reset();
  if (!RemoveDirectoryW(directory.c_str())) {
    return has_entries ? Refuse(error, kTreeDirectoryStays) : false;
  }
  return true;
}

}  // namespace

bool RemoveWorkTree(const std::wstring& directory, UpdateError& error) {
  return RemoveTree(directory, Journal::kNone, error);
}

// The work directory was checked much earlier. Held, it can no longer be replaced by a link; its path is
// checked once more, as for any directory before something below it is touched.
bool RemovePreviousDirectory(const std::wstring& previous_directory, UpdateError& error) {
  if (!MayExist(previous_directory)) {
    return true;
  }
  const std::wstring work_directory(ParentOfRelativePath(previous_directory));
  OwnedHandle held;
  const PathKind kind = HoldDirectory(work_directory, held);
  if (kind == PathKind::kUnknown) {
    return Refuse(error, kTreeUnreadable);
  }
  if (kind == PathKind::kReparsePoint || ProbePath(work_directory) == PathKind::kReparsePoint) {
    return Refuse(error, kTreeUnsafe);
  }
  return RemoveTree(previous_directory, Journal::kFirst, error);
}

bool ClearWorkDirectoryExcept(const std::wstring& directory, std::wstring_view kept_name,
                              UpdateError& error) {
  OwnedHandle held;
  switch (HoldDirectory(directory, held)) {
    case PathKind::kDirectory:
      break;
    case PathKind::kReparsePoint:
      return Refuse(error, kStorageHasReparsePoint);
    case PathKind::kUnknown:
      return Refuse(error, kTreeUnreadable);
    default:
      return true;  // nothing there that could hold stale data
  }
  for (DirectoryListing listing(directory); listing.AtEntry(); listing.Advance()) {
    if (EqualIgnoringAsciiCase(listing.Name(), kept_name)) {
      continue;
    }
    // By a path, Windows takes such a name for the one without its end, which may be the one that is kept.
    if (listing.Name().ends_with(L'.') || listing.Name().ends_with(L' ')) {
      return Refuse(error, kStorageFileStays);
    }
    const std::wstring child = JoinPath(directory, listing.Name());
    if (listing.IsReparsePoint()) {
      return Refuse(error, kStorageHasReparsePoint);
    }
    if (listing.IsDirectory()) {
      if (!RemoveWorkTree(child, error)) {
        return false;
      }
    } else if (!DeleteFileW(child.c_str())) {
      return Refuse(error, kStorageFileStays);
    }
  }
  return true;
}

}  // namespace talvex
