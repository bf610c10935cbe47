#include "rollback/restoration.h"

#include <windows.h>

#include <string_view>

#include "formats/installed_state.h"
#include "formats/verified_cache.h"
#include "rollback/rollback_preparation.h"
#include "storage/client_root.h"
#include "storage/work_storage.h"

namespace talvex {
namespace {

constexpr std::wstring_view kCopyMissing = L"A required rollback copy is missing.";
constexpr std::wstring_view kIncomplete = L"Automatic restoration was incomplete. The rollback copy is at:\n";
constexpr std::wstring_view kTargetNotRegular = L"An updater rollback target is not a regular file.";
constexpr std::wstring_view kTargetLinks = L"An updater rollback target has unsafe file links.";
constexpr std::wstring_view kRemoveFailed = L"Could not remove a file during updater rollback.";

// Whether the installed file should go back to where it was staged: it came from there, and its place there
// is free.
bool BelongsBackInStage(const ApplyOperation& operation) {
  return !operation.retire && !operation.staged_path.empty() && PathExists(operation.target_path) &&
         !PathExists(operation.staged_path);
}

bool MoveBackToStage(const ApplyOperation& operation) {
  return MoveFileExW(operation.target_path.c_str(), operation.staged_path.c_str(), MOVEFILE_WRITE_THROUGH) !=
         0;
}

bool UndoOperation(const ApplyOperation& operation, UpdateError& error) {
  const Presence copy = LookFor(operation.rollback_copy_path);
  if (copy == Presence::kUnknown) {
    return false;  // whether the file in place is the old or the new one cannot be told: hands off
  }
  if (copy == Presence::kPresent) {
    if (BelongsBackInStage(operation) && !MoveBackToStage(operation)) {
      return false;
    }
    return RestoreRecoveryCopy(operation.rollback_copy_path, operation.target_path, error);
  }
  if (operation.existed) {
    // Without a copy the file was never moved away, if it is still there.
    return PathExists(operation.target_path) || RefuseUnlessExplained(error, kCopyMissing);
  }
  if (BelongsBackInStage(operation)) {
    return MoveBackToStage(operation);
  }
  return RemoveRollbackTarget(operation.target_path, error);
}

bool RestoreCacheFile(const std::wstring& cache, const std::wstring& old_cache, std::wstring_view name,
                      bool existed, UpdateError& error) {
  const std::wstring target = JoinPath(cache, name);
  return existed ? RestoreRecoveryCopy(JoinPath(old_cache, name), target, error)
                 : RemoveRollbackTarget(target, error);
}

bool RestoreCache(const std::wstring& client_root, const std::wstring& old_install,
                  const RollbackJournal& journal, UpdateError& error) {
  if (!journal.previous_cache_manifest && !journal.previous_cache_signature) {
    return RemoveWorkTree(JoinPath(client_root, kCacheDirectoryName), error);
  }
  std::wstring cache;
  if (!CreateUpdateDirectory(client_root, kCacheDirectoryName, cache, error)) {
    return false;
  }
  const std::wstring old_cache = JoinPath(old_install, kCacheDirectoryName);
  return RestoreCacheFile(cache, old_cache, kManifestFileName, journal.previous_cache_manifest, error) &&
         RestoreCacheFile(cache, old_cache, kSignatureFileName, journal.previous_cache_signature, error);
}

}  // namespace

bool RestoreFromRollback(const std::wstring& client_root, const std::wstring& previous_directory,
                         const RollbackJournal& journal, std::span<const ApplyOperation> operations,
                         UpdateError& error) {
  UpdateError file_error;
  UpdateError state_error;
  const bool files_restored = RestoreRollbackFiles(operations, file_error);
  const bool state_restored = RestoreStateAndCache(client_root, previous_directory, journal, state_error);
  if (files_restored && state_restored) {
    return true;
  }
  error = file_error.IsEmpty() ? state_error : file_error;
  return false;
}

void SetRestorationIncomplete(UpdateError& error, const std::wstring& copy_path) {
  SetError(error, std::wstring(kIncomplete) + copy_path);
}

bool RestoreRollbackFiles(std::span<const ApplyOperation> operations, UpdateError& error) {
  bool all_restored = true;
  for (auto operation = operations.rbegin(); operation != operations.rend(); ++operation) {
    UpdateError operation_error;
    if (UndoOperation(*operation, operation_error)) {
      continue;
    }
    all_restored = false;
    if (error.IsEmpty()) {
      error = operation_error;
    }
    if (error.IsEmpty()) {
      SetRestorationIncomplete(error, operation->rollback_copy_path);
    }
  }
  return all_restored;
}

bool RestoreStateAndCache(const std::wstring& client_root, const std::wstring& previous_directory,
                          const RollbackJournal& journal, UpdateError& error) {
  const std::wstring old_install = JoinPath(previous_directory, kOldInstallName);
  const std::wstring state = JoinPath(client_root, kInstalledStateFileName);
  const bool state_restored =
      journal.previous_state
          ? RestoreRecoveryCopy(JoinPath(old_install, kInstalledStateFileName), state, error)
          : RemoveRollbackTarget(state, error);
  return state_restored && RestoreCache(client_root, old_install, journal, error);
}

bool RestoreRecoveryCopy(const std::wstring& copy, const std::wstring& target, UpdateError& error) {
  return RemoveRollbackTarget(target, error) && MakeRecoveryCopy(copy, target, error);
}

bool RemoveRollbackTarget(const std::wstring& target, UpdateError& error) {
  const DWORD attributes = GetFileAttributesW(target.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES && !PathExists(target)) {
    return true;
  }
  // Attributes that could not be read have every bit set.
  if ((attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) != 0) {
    return Refuse(error, kTargetNotRegular);
  }
  if (!HasSafeFileLinks(target)) {
    return Refuse(error, kTargetLinks);
  }
  if (!DeleteFileW(target.c_str())) {
    return Refuse(error, kRemoveFailed);
  }
  return true;
}

}  // namespace talvex
