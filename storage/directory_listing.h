#pragma once

// The entries of a directory, one at a time, for cleanup and publishing.

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "storage/client_root.h"

namespace talvex {

// One enumeration of a directory, "." and ".." left out. It must be destroyed before the directory is
// removed.
class DirectoryListing {
 public:
  explicit DirectoryListing(const std::wstring& directory) {
    const std::wstring pattern = JoinPath(directory, L"*");
    search_ = FindFirstFileW(pattern.c_str(), &entry_);
    if (search_ == INVALID_HANDLE_VALUE) {
      open_error_ = GetLastError();
      return;
    }
    at_entry_ = true;
    SkipDots();
  }
  DirectoryListing(const DirectoryListing&) = delete;
  DirectoryListing& operator=(const DirectoryListing&) = delete;
  ~DirectoryListing() {
    if (search_ != INVALID_HANDLE_VALUE) {
      FindClose(search_);
    }
  }

  // The error code if the enumeration could not start, otherwise ERROR_SUCCESS.
  [[nodiscard]] DWORD OpenError() const { return open_error_; }
  // The error code if the enumeration could not start or has ended early, otherwise ERROR_SUCCESS.
  [[nodiscard]] DWORD Error() const { return open_error_ != ERROR_SUCCESS ? open_error_ : end_error_; }
  [[nodiscard]] bool AtEntry() const { return at_entry_; }
  [[nodiscard]] std::wstring_view Name() const { return entry_.cFileName; }
  [[nodiscard]] bool IsReparsePoint() const { return Has(FILE_ATTRIBUTE_REPARSE_POINT); }
  [[nodiscard]] bool IsDirectory() const { return Has(FILE_ATTRIBUTE_DIRECTORY); }
  // In bytes, as the directory has it: not up to date for a file that is open for writing.
  [[nodiscard]] std::uint64_t Size() const {
    return (std::uint64_t{entry_.nFileSizeHigh} << 32) | entry_.nFileSizeLow;
  }

  // Any failure ends the enumeration; Error tells it from the regular end.
  void Advance() {
    StepForward();
    SkipDots();
  }

 private:
  [[nodiscard]] bool Has(DWORD attribute) const { return (entry_.dwFileAttributes & attribute) != 0; }

  void StepForward() {
    at_entry_ = FindNextFileW(search_, &entry_) != 0;
    if (!at_entry_) {
      const DWORD code = GetLastError();
      end_error_ = code == ERROR_NO_MORE_FILES ? DWORD{ERROR_SUCCESS} : code;
    }
  }

  void SkipDots() {
    while (at_entry_ && (Name() == L"." || Name() == L"..")) {
      StepForward();
    }
  }

  WIN32_FIND_DATAW entry_{};
  HANDLE search_ = INVALID_HANDLE_VALUE;
  DWORD open_error_ = ERROR_SUCCESS;
  DWORD end_error_ = ERROR_SUCCESS;
  bool at_entry_ = false;
};

}  // namespace talvex
