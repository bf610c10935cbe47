#include "rollback/restoration.h"

#include <windows.h>

#include <string_view>
#include <utility>

#include "core/memory_shortage.h"
#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "rollback/recovery_copy.h"
#include "storage/client_root.h"
#include "storage/held_directory.h"
#include "storage/update_layout.h"
#include "storage/work_storage.h"

namespace talvex {
namespace {

constexpr wchar_t kCopyMissing[] = L"A required rollback copy is missing.";
constexpr wchar_t kIncomplete[] = L"Automatic restoration was incomplete. The rollback copy is at:\n";
constexpr wchar_t kTargetNotRegular[] = L"An updater rollback target is not a regular file.";
constexpr wchar_t kTargetLinks[] = L"An updater rollback target has unsafe file links.";
constexpr wchar_t kRemoveFailed[] = L"Could not remove a file during updater rollback.";

// Keeps the directory of `target` in its place. If there is none, or a plain file instead, there is no target
// either.
PathKind HoldDirectoryOf(const std::wstring& target, RetryBudget& budget, OwnedHandle& held) {
  RetrySchedule schedule(budget);
  return HoldParentOf(target, schedule, held);
}

bool IsSafeToChangeBelow(PathKind directory, UpdateError& error) {
  return (directory != PathKind::kUnknown && directory != PathKind::kReparsePoint) ||
         Refuse(error, kTargetLinks);
}

// Whether `target` may be removed, if it exists.
bool InspectTarget(const std::wstring& target, RetryBudget& budget, bool& is_there, UpdateError& error) {
  RetrySchedule schedule(budget);
  const FileState state = ProbeWithRetry(schedule, [&] { return InspectFile(target); });
  is_there = state == FileState::kRegular;
  switch (state) {
    case FileState::kAbsent:
    case FileState::kRegular:
      return true;
    case FileState::kNotRegular:
      return Refuse(error, kTargetNotRegular);
    default:
      return Refuse(error, kTargetLinks);
  }
}

// Removes an inspected target: moves it to `staged_path` if one is given and its place is free, otherwise
// deletes it.
bool TakeAway(const std::wstring& target, const std::wstring& staged_path, RetryBudget& budget,
              UpdateError& error) {
  RetrySchedule schedule(budget);
  // A file that would stay in the client because nobody knows whether its old place is free would be worse.
  if (!staged_path.empty() && ProbePathWithRetry(staged_path, budget) == PathKind::kAbsent) {
    return MoveFileWithRetry(target, staged_path, MOVEFILE_WRITE_THROUGH, schedule);
  }
  return DeleteFileWithRetry(target, schedule) || Refuse(error, kRemoveFailed);
}

bool RemoveTarget(const std::wstring& target, const std::wstring& staged_path, RetryBudget& budget,
                  UpdateError& error) {
  bool is_there = false;
  return InspectTarget(target, budget, is_there, error) &&
         (!is_there || TakeAway(target, staged_path, budget, error));
}

// Order: the source before the target, because a removed target can only be restored from a good source. The
// source stays open, so that what was checked is what is copied.
bool ReplaceTarget(const std::wstring& copy, const std::wstring& target, const std::wstring& staged_path,
                   RetryBudget& budget, UpdateError& error) {
  bool is_there = false;
  if (!InspectTarget(target, budget, is_there, error)) {
    return false;
  }
  const OwnedHandle source = OpenRecoverySource(copy, GENERIC_READ, budget, error);
  return source.IsValid() && (!is_there || TakeAway(target, staged_path, budget, error)) &&
         CopyRecoverySource(copy, target, budget, error);
}

// The last components are not checked here: a target or a copy that is a link has its own message.
bool RejectLinkedPaths(const std::wstring& client_root, const ApplyOperation& operation, UpdateError& error) {
  const std::wstring& relative_path = operation.entry->normalised_path;
  const std::wstring copies = FilesDirectory(PreviousDirectory(L""));
  return RejectReparsePoints(client_root, relative_path, LastComponent::kUnchecked, error) &&
         RejectReparsePoints(client_root, JoinPath(copies, relative_path), LastComponent::kUnchecked, error);
}

// Whether the update did not come to this operation, or its undoing is complete: then nothing is changed,
// and it does not matter who holds what. Without a copy, a file that is still there was never moved away. One
// that cannot be inspected may be gone in a moment.
bool IsUndone(const ApplyOperation& operation, RetryBudget& budget) {
  if (ProbePathWithRetry(operation.rollback_copy_path, budget) != PathKind::kAbsent) {
    return false;
  }
  const PathKind target = ProbePathWithRetry(operation.target_path, budget);
  return operation.existed ? target != PathKind::kAbsent && target != PathKind::kUnknown
                           : target == PathKind::kAbsent;
}

bool UndoCheckedOperation(const ApplyOperation& operation, RetryBudget& budget, UpdateError& error) {
  // A retire has no staged path.
  const PathKind copy = ProbePathWithRetry(operation.rollback_copy_path, budget);
  if (copy == PathKind::kUnknown) {
    return false;  // unknown whether the file in place is the old or the new one: leave it alone
  }
  if (copy != PathKind::kAbsent) {
    return ReplaceTarget(operation.rollback_copy_path, operation.target_path, operation.staged_path, budget,
                         error);
  }
  return operation.existed ? Refuse(error, kCopyMissing)
                           : RemoveTarget(operation.target_path, operation.staged_path, budget, error);
}

bool UndoOperation(const std::wstring& client_root, const ApplyOperation& operation, RetryBudget& budget,
                   UpdateError& error) {
  if (RejectLinkedPaths(client_root, operation, error) && IsUndone(operation, budget)) {
    return true;
  }
  // Held before it is checked again, so that the check still holds when the target is changed. Checked once
  // more afterwards, as the directory of the copy is not held.
  OwnedHandle held;
  const PathKind directory = HoldDirectoryOf(operation.target_path, budget, held);
  return RejectLinkedPaths(client_root, operation, error) && IsSafeToChangeBelow(directory, error) &&
         UndoCheckedOperation(operation, budget, error) && RejectLinkedPaths(client_root, operation, error);
}

bool RestoreFile(const std::wstring& copy, const std::wstring& target, bool existed, RetryBudget& budget,
                 UpdateError& error) {
  return existed ? RestoreRecoveryCopy(copy, target, budget, error)
                 : RemoveRollbackTarget(target, budget, error);
}

bool RestoreCache(const std::wstring& client_root, const std::wstring& old_install,
                  const RollbackJournal& journal, RetryBudget& budget, UpdateError& error) {
  if (!journal.previous_cache_manifest && !journal.previous_cache_signature) {
    return RemoveWorkTree(CacheDirectory(client_root), error);
  }
  std::wstring cache_directory;
  if (!CreateUpdateDirectory(client_root, CacheDirectory(L""), cache_directory, error)) {
    return false;
  }
  const SignedPairPaths cache = SignedPairIn(cache_directory);
  const SignedPairPaths old_cache = SignedPairIn(CacheDirectory(old_install));
  OwnedHandle held;
  return IsSafeToChangeBelow(HoldDirectoryOf(cache.manifest, budget, held), error) &&
         RestoreFile(old_cache.manifest, cache.manifest, journal.previous_cache_manifest, budget, error) &&
         RestoreFile(old_cache.signature, cache.signature, journal.previous_cache_signature, budget, error);
}

}  // namespace

bool RestoreFromRollback(const std::wstring& client_root, const std::wstring& previous_directory,
                         const RollbackJournal& journal, std::span<const ApplyOperation> operations,
                         UpdateError& error) {
  UpdateError file_error;
  UpdateError state_error;
  RetryBudget budget(kMaxRecoveryWaitMs);
  const bool files_restored = RestoreRollbackFiles(client_root, operations, budget, file_error);
  const bool state_restored =
      RestoreStateAndCache(client_root, previous_directory, journal, budget, state_error);
  if (files_restored && state_restored) {
    return true;
  }
  error = file_error.IsEmpty() ? state_error : file_error;
  return false;
}

void SetRestorationIncomplete(UpdateError& error, const std::wstring& copy_path) {
  SetError(error, std::wstring(kIncomplete) + copy_path);
}

bool RestoreRollbackFiles(const std::wstring& client_root, std::span<const ApplyOperation> operations,
                          RetryBudget& budget, UpdateError& error) {
  bool all_restored = true;
  for (auto operation = operations.rbegin(); operation != operations.rend(); ++operation) {
    UpdateError operation_error;
    // Not even running out of memory keeps the other files from being restored.
    if (RunCatchingBadAlloc(
            [&] { return UndoOperation(client_root, *operation, budget, operation_error); })) {
      continue;
    }
    all_restored = false;
    if (error.IsEmpty()) {
      error = std::move(operation_error);
    }
    if (error.IsEmpty()) {
      static_cast<void>(RunCatchingBadAlloc([&] {
        SetRestorationIncomplete(error, operation->rollback_copy_path);
        return true;
      }));
    }
  }
  return all_restored;
}

bool RestoreStateAndCache(const std::wstring& client_root, const std::wstring& previous_directory,
                          const RollbackJournal& journal, RetryBudget& budget, UpdateError& error) {
  const std::wstring old_install = OldInstallDirectory(previous_directory);
  const std::wstring state = InstalledStatePath(client_root);
  OwnedHandle held;  // the directory of the state file, and of the cache
  return IsSafeToChangeBelow(HoldDirectoryOf(state, budget, held), error) &&
         RestoreFile(InstalledStatePath(old_install), state, journal.previous_state, budget, error) &&
         RestoreCache(client_root, old_install, journal, budget, error);
}

bool RestoreRecoveryCopy(const std::wstring& copy, const std::wstring& target, RetryBudget& budget,
                         UpdateError& error) {
  return ReplaceTarget(copy, target, std::wstring(), budget, error);
}

bool RemoveRollbackTarget(const std::wstring& target, RetryBudget& budget, UpdateError& error) {
  return RemoveTarget(target, std::wstring(), budget, error);
}

}  // namespace talvex
