#include "storage/work_storage.h"

#include <windows.h>

#include "core/ascii_case.h"
#include "storage/client_root.h"
#include "storage/directory_listing.h"

namespace talvex {
namespace {

constexpr std::wstring_view kTreeUnsafe = L"An updater work directory is unsafe.";
constexpr std::wstring_view kTreeUnreadable = L"Could not inspect an updater work directory.";
constexpr std::wstring_view kTreeHasReparsePoint = L"An updater work directory contains a reparse point.";
constexpr std::wstring_view kTreeFileStays = L"Could not remove old updater work data.";
constexpr std::wstring_view kTreeDirectoryStays = L"Could not remove an old updater directory.";
constexpr std::wstring_view kStorageHasReparsePoint = L"Updater storage contains an unsafe reparse point.";
constexpr std::wstring_view kStorageFileStays = L"Could not remove stale updater data.";

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
    SetFileAttributesW(child.c_str(), FILE_ATTRIBUTE_NORMAL);  // a read-only file could not be deleted
    if (!DeleteFileW(child.c_str())) {
      return Refuse(error, kTreeFileStays);
    }
  }
  return true;
}

}  // namespace

bool RemoveWorkTree(const std::wstring& directory, UpdateError& error) {
  if (!IsRealDirectory(directory)) {
    return PathExists(directory) ? Refuse(error, kTreeUnsafe) : true;
  }
  {
    DirectoryListing listing(directory);
    if (listing.OpenError() == ERROR_FILE_NOT_FOUND) {
      return RemoveDirectoryW(directory.c_str()) != 0;
    }
    if (listing.OpenError() != ERROR_SUCCESS) {
      return Refuse(error, kTreeUnreadable);
    }
    if (!RemoveListedEntries(directory, listing, error)) {
      return false;
    }
  }
  if (!RemoveDirectoryW(directory.c_str())) {
    return Refuse(error, kTreeDirectoryStays);
  }
  return true;
}

bool ClearWorkDirectoryExcept(const std::wstring& directory, std::wstring_view kept_name,
                              UpdateError& error) {
  for (DirectoryListing listing(directory); listing.AtEntry(); listing.Advance()) {
    if (EqualIgnoringAsciiCase(listing.Name(), kept_name)) {
      continue;
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
