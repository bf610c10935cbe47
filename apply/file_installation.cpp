#include "apply/file_installation.h"

#include <algorithm>
#include <string_view>

#include "core/owned_handle.h"
#include "core/whole_file.h"
#include "storage/client_root.h"

namespace talvex {
namespace {

constexpr int kMostAttempts = 8;
constexpr DWORD kFirstRetryDelayMs = 50;
constexpr DWORD kLongestRetryDelayMs = 400;

constexpr std::wstring_view kTargetChanged = L"An update target changed during installation.";
constexpr std::wstring_view kInstallFailed = L"Could not install a new update file.";
constexpr std::wstring_view kRetireFailed = L"Could not create a rollback copy for a retired update file.";
constexpr std::wstring_view kReplaceFailed = L"Could not atomically replace an update file.";
constexpr std::wstring_view kInjectedFailure = L"Injected update replacement failure.";
constexpr std::wstring_view kFlushFailed = L"An updated file could not be flushed safely before restart.";

// The codes with which Windows says that somebody else is using the file at this moment.
bool IsPassingConflict(DWORD code) {
  return code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION || code == ERROR_LOCK_VIOLATION ||
         code == ERROR_BUSY || code == ERROR_USER_MAPPED_FILE;
}

// The one retry schedule: 50, 100, 200, then 400 ms between attempts.
template <typename Attempt>
bool TryWithRetry(Attempt attempt) {
  DWORD delay_ms = kFirstRetryDelayMs;
  for (int attempts = 1;; ++attempts) {
    if (attempt()) {
      return true;
    }
    const DWORD code = GetLastError();
    if (!IsPassingConflict(code) || attempts == kMostAttempts) {
      SetLastError(code);
      return false;
    }
    Sleep(delay_ms);
    delay_ms = std::min(2 * delay_ms, kLongestRetryDelayMs);
  }
}

bool MakeParentDirectories(const std::wstring& client_root, const std::wstring& rollback_files_directory,
                           const ApplyOperation& operation, UpdateError& error) {
  const std::wstring_view parent = ParentOfRelativePath(operation.entry->normalised_path);
  std::wstring made;
  return parent.empty() || (CreateUpdateDirectory(client_root, parent, made, error) &&
                            CreateUpdateDirectory(rollback_files_directory, parent, made, error));
}

// The change of an operation whose target was absent when rollback was prepared.
bool ChangeAbsentTarget(const ApplyOperation& operation, DWORD attributes, UpdateError& error) {
  if (attributes != INVALID_FILE_ATTRIBUTES) {
    return Refuse(error, kTargetChanged);
  }
  if (!operation.retire &&
      !MoveFileWithRetry(operation.staged_path, operation.target_path, MOVEFILE_WRITE_THROUGH)) {
    return Refuse(error, kInstallFailed);
  }
  return true;
}

// The change of an operation whose target existed, a copy of which the same call leaves behind.
bool ChangeExistingTarget(const ApplyOperation& operation, DWORD attributes, UpdateError& error) {
  if (attributes == INVALID_FILE_ATTRIBUTES ||
      (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) != 0) {
    return Refuse(error, kTargetChanged);
  }
  if (operation.retire) {
    if (!MoveFileWithRetry(operation.target_path, operation.rollback_copy_path, MOVEFILE_WRITE_THROUGH)) {
      return Refuse(error, kRetireFailed);
    }
    return true;
  }
  if (!ReplaceFileWithRetry(operation.target_path, operation.staged_path, operation.rollback_copy_path)) {
    return Refuse(error, kReplaceFailed);
  }
  return true;
}

// A restart of Windows straight after the update must not lose an installed file.
bool FlushInstalledFile(const std::wstring& path, UpdateError& error) {
  const OwnedHandle file(
      CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                  FILE_FLAG_WRITE_THROUGH | FILE_FLAG_OPEN_REPARSE_POINT | FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.IsValid() || !IsRegularFile(file.Get()) || !FlushFileBuffers(file.Get())) {
    return Refuse(error, kFlushFailed);
  }
  return true;
}

}  // namespace

bool InstallApplyOperations(const std::wstring& client_root, const std::wstring& rollback_files_directory,
                            std::span<ApplyOperation> operations, StatusWindow& window,
                            std::size_t fault_injection_index, UpdateError& error) {
  for (std::size_t i = 0; i < operations.size(); ++i) {
    ApplyOperation& operation = operations[i];
    if (!MakeParentDirectories(client_root, rollback_files_directory, operation, error)) {
      return false;
    }
    const DWORD attributes = GetFileAttributesW(operation.target_path.c_str());
    if (!(operation.existed ? ChangeExistingTarget(operation, attributes, error)
                            : ChangeAbsentTarget(operation, attributes, error))) {
      return false;
    }
    operation.applied = true;
    if (i == fault_injection_index) {
      return Refuse(error, kInjectedFailure);
    }
    if (!operation.retire && !FlushInstalledFile(operation.target_path, error)) {
      return false;
    }
    window.SetStatusProgress(i + 1, operations.size());
  }
  return true;
}

bool MoveFileWithRetry(const std::wstring& source, const std::wstring& destination, DWORD flags) {
  return TryWithRetry([&] { return MoveFileExW(source.c_str(), destination.c_str(), flags) != 0; });
}

bool ReplaceFileWithRetry(const std::wstring& replaced, const std::wstring& replacement,
                          const std::wstring& backup) {
  return TryWithRetry([&] {
    return ReplaceFileW(replaced.c_str(), replacement.c_str(), backup.c_str(), REPLACEFILE_WRITE_THROUGH,
                        nullptr, nullptr) != 0;
  });
}

}  // namespace talvex
