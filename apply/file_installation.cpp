#include "apply/file_installation.h"

#include <windows.h>

#include <string_view>

#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "storage/client_root.h"
#include "storage/held_directory.h"

namespace talvex {
namespace {

constexpr wchar_t kTargetChanged[] = L"An update target changed during installation.";
constexpr wchar_t kInstallFailed[] = L"Could not install a new update file.";
constexpr wchar_t kRetireFailed[] = L"Could not create a rollback copy for a retired update file.";
constexpr wchar_t kReplaceFailed[] = L"Could not atomically replace an update file.";
constexpr wchar_t kInjectedFailure[] = L"Injected update replacement failure.";
constexpr wchar_t kFlushFailed[] = L"An updated file could not be flushed safely before restart.";

bool MakeParentDirectories(const std::wstring& client_root, const std::wstring& rollback_files_directory,
                           const ApplyOperation& operation, UpdateError& error) {
  const std::wstring_view parent = ParentOfRelativePath(operation.entry->normalised_path);
  std::wstring made;
  return parent.empty() || (CreateUpdateDirectory(client_root, parent, made, error) &&
                            CreateUpdateDirectory(rollback_files_directory, parent, made, error));
}

// Keeps the directory of the target in its place. Checked only once it is held: otherwise it could be
// replaced between the check and the change.
bool HoldCheckedDirectory(const std::wstring& client_root, const ApplyOperation& operation,
                          RetrySchedule& schedule, OwnedHandle& held, UpdateError& error) {
  const std::wstring_view parent = ParentOfRelativePath(operation.entry->normalised_path);
  const PathKind directory = HoldParentOf(operation.target_path, schedule, held);
  return RejectReparsePoints(client_root, parent, LastComponent::kChecked, error) &&
         (directory == PathKind::kDirectory || Refuse(error, kTargetChanged));
}

// The change of an operation whose target was absent when rollback was prepared. A failed probe proves
// nothing, and the move overwrites nothing.
bool ChangeAbsentTarget(const ApplyOperation& operation, PathKind target, RetrySchedule& schedule,
                        UpdateError& error) {
  if (target != PathKind::kAbsent && target != PathKind::kUnknown) {
    return Refuse(error, kTargetChanged);
  }
  if (!operation.retire &&
      !MoveFileWithRetry(operation.staged_path, operation.target_path, MOVEFILE_WRITE_THROUGH, schedule)) {
    return Refuse(error, kInstallFailed);
  }
  return true;
}

// The change of an operation whose target existed; the same call leaves a copy of it.
bool ChangeExistingTarget(const ApplyOperation& operation, PathKind target, RetrySchedule& schedule,
                          UpdateError& error) {
  if (target != PathKind::kFile) {
    return Refuse(error, kTargetChanged);
  }
  if (operation.retire) {
    if (!MoveFileWithRetry(operation.target_path, operation.rollback_copy_path, MOVEFILE_WRITE_THROUGH,
                           schedule)) {
      return Refuse(error, kRetireFailed);
    }
    return true;
  }
  if (!ReplaceFileWithRetry(operation.target_path, operation.staged_path, operation.rollback_copy_path,
                            schedule)) {
    return Refuse(error, kReplaceFailed);
  }
  return true;
}

// A restart of Windows straight after the update must not lose an installed file. Only this flush ensures it:
// REPLACEFILE_WRITE_THROUGH is documented as not supported. Retried, because scanners and Explorer (for
// icons) open new programs at this moment.
bool FlushInstalledFile(const std::wstring& path, RetrySchedule& schedule, UpdateError& error) {
  OwnedHandle file;
  if (!schedule.Try([&] {
        file.Reset(CreateFileW(
            path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
            FILE_FLAG_WRITE_THROUGH | FILE_FLAG_OPEN_REPARSE_POINT | FILE_ATTRIBUTE_NORMAL, nullptr));
        return file.IsValid();
      }) ||
      !IsRegularFile(file.Get()) || !FlushFileBuffers(file.Get())) {
    return Refuse(error, kFlushFailed);
  }
  return true;
}

}  // namespace

bool InstallApplyOperations(const std::wstring& client_root, const std::wstring& rollback_files_directory,
                            std::span<ApplyOperation> operations, TransactionDisplay& display,
                            std::size_t fault_injection_index, UpdateError& error) {
  for (std::size_t i = 0; i < operations.size(); ++i) {
    ApplyOperation& operation = operations[i];
    if (!MakeParentDirectories(client_root, rollback_files_directory, operation, error)) {
      return false;
    }
    RetrySchedule schedule;  // of the whole operation
    OwnedHandle held;
    if (!HoldCheckedDirectory(client_root, operation, schedule, held, error)) {
      return false;
    }
    const PathKind target = ProbePath(operation.target_path);
    if (!(operation.existed ? ChangeExistingTarget(operation, target, schedule, error)
                            : ChangeAbsentTarget(operation, target, schedule, error))) {
      return false;
    }
    operation.applied = true;
    if (i == fault_injection_index) {
      return Refuse(error, kInjectedFailure);
    }
    if (!operation.retire && !FlushInstalledFile(operation.target_path, schedule, error)) {
      return false;
    }
    display.SetStatusProgress(i + 1, operations.size());
  }
  return true;
}

bool ReplaceFileWithRetry(const std::wstring& replaced, const std::wstring& replacement,
                          const std::wstring& backup, RetrySchedule& schedule) {
  return schedule.Try([&] {
    return ReplaceFileW(replaced.c_str(), replacement.c_str(), backup.c_str(), REPLACEFILE_WRITE_THROUGH,
                        nullptr, nullptr) != 0;
  });
}

}  // namespace talvex
