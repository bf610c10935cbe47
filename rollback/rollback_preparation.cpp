#include "rollback/rollback_preparation.h"

#include <windows.h>

#include <cstdint>
#include <limits>

#include "core/regular_file.h"
#include "core/whole_file.h"
#include "formats/managed_file.h"
#include "formats/rollback_journal.h"
#include "rollback/recovery_copy.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr wchar_t kTargetNotRegular[] = L"An update target is not a regular file.";
constexpr wchar_t kTargetLinks[] = L"An update target has unsafe file links.";
constexpr wchar_t kRetiredChanged[] = L"A retired managed file changed locally and was not deleted.";
constexpr wchar_t kCacheUnsafe[] = L"The verified update cache directory is unsafe.";
constexpr wchar_t kHelperUnprepared[] = L"The update helper could not prepare rollback recovery.";

bool MakePreviousDirectories(const std::wstring& previous_directory, UpdateError& error) {
  std::wstring made;
  const std::wstring old_install = OldInstallDirectory(L"");
  for (const std::wstring& name :
       {FilesDirectory(L""), old_install, CacheDirectory(old_install), RecoveryDirectory(L"")}) {
    if (!CreateUpdateDirectory(previous_directory, name, made, error)) {
      return false;
    }
  }
  return true;
}

// Checks each target and creates the directories of its new file and of its rollback copy.
bool PrepareOperations(const std::wstring& client_root, const std::wstring& files_directory,
                       std::span<ApplyOperation> operations, RollbackJournal& journal, UpdateError& error) {
  std::wstring made;
  for (ApplyOperation& operation : operations) {
    if (!CheckUpdateTarget(operation, error)) {
      return false;
    }
    const std::wstring_view parent = ParentOfRelativePath(operation.entry->normalised_path);
    if (!parent.empty()) {
      if (!operation.retire && !CreateUpdateDirectory(client_root, parent, made, error)) {
        return false;
      }
      if (!CreateUpdateDirectory(files_directory, parent, made, error)) {
        return false;
      }
    }
    journal.entries.push_back(
        {operation.retire, operation.existed, operation.entry->path, operation.entry->normalised_path});
  }
  return true;
}

bool SaveStateAndCache(const std::wstring& client_root, const std::wstring& previous_directory,
                       RollbackJournal& journal, RetryBudget& budget, UpdateError& error) {
  const std::wstring old_install = OldInstallDirectory(previous_directory);
  if (!CopyIfPresent(InstalledStatePath(client_root), InstalledStatePath(old_install), journal.previous_state,
                     budget, error)) {
    return false;
  }
  const std::wstring cache_directory = CacheDirectory(client_root);
  const PathKind cache_kind = ProbePath(cache_directory);
  if (cache_kind != PathKind::kAbsent && cache_kind != PathKind::kDirectory) {
    return Refuse(error, kCacheUnsafe);
  }
  const SignedPairPaths cache = SignedPairIn(cache_directory);
  const SignedPairPaths old_cache = SignedPairIn(CacheDirectory(old_install));
  return CopyIfPresent(cache.manifest, old_cache.manifest, journal.previous_cache_manifest, budget, error) &&
         CopyIfPresent(cache.signature, old_cache.signature, journal.previous_cache_signature, budget, error);
}

// The helper that will roll back must be the one in the new manifest: a copy of anything else would be an
// unsigned program that the client starts later.
bool SaveRunningHelper(const Manifest& new_manifest, const std::wstring& destination, RetryBudget& budget,
                       UpdateError& error) {
  const ManifestEntry* const entry = FindManifestEntry(new_manifest, kHelperFileName);
  const std::wstring program = RunningProgramPath();
  if (entry == nullptr || program.empty()) {
    return Refuse(error, kHelperUnprepared);
  }
  return VerifyManagedFile(program, *entry, entry->size, kHelperUnprepared, error) &&
         MakeRecoveryCopy(program, destination, budget, error);
}

}  // namespace

bool PrepareRollback(const std::wstring& client_root, const std::wstring& previous_directory,
                     const std::wstring& files_directory, const Manifest& new_manifest,
                     std::span<const std::byte> manifest_bytes, std::span<const std::byte> signature,
                     std::span<ApplyOperation> operations, UpdateError& error) {
  if (!MakePreviousDirectories(previous_directory, error)) {
    return false;
  }
  RollbackJournal journal;
  journal.manifest_digest = new_manifest.digest;
  RetryBudget budget(kMaxRecoveryWaitMs);
  const SignedPairPaths recovery = RecoveryPair(previous_directory);
  // Order: the journal last, because a journal on disk promises that everything it names has been saved.
  // Written earlier, a crash at this point would leave a promise that rollback cannot keep.
  return PrepareOperations(client_root, files_directory, operations, journal, error) &&
         SaveStateAndCache(client_root, previous_directory, journal, budget, error) &&
         WriteNewFile(recovery.manifest, manifest_bytes, error) &&
         WriteNewFile(recovery.signature, signature, error) &&
         SaveRunningHelper(new_manifest, RecoveryHelperPath(previous_directory), budget, error) &&
         SaveRollbackJournal(RollbackJournalPath(previous_directory), journal, error);
}

bool CheckUpdateTarget(ApplyOperation& operation, UpdateError& error) {
  const FileState state = InspectFile(operation.target_path);
  operation.existed = state != FileState::kAbsent;
  switch (state) {
    case FileState::kAbsent:
      return true;
    case FileState::kNotRegular:
      return Refuse(error, kTargetNotRegular);
    case FileState::kUnsafeLinks:
    case FileState::kUnknown:
      return Refuse(error, kTargetLinks);
    case FileState::kRegular:
      break;
  }
  // No size limit: a file that has grown is a changed file too, and must be reported as one.
  return !operation.retire ||
         VerifyManagedFile(operation.target_path, *operation.entry, std::numeric_limits<std::uint64_t>::max(),
                           kRetiredChanged, error);
}

bool CopyIfPresent(const std::wstring& source, const std::wstring& destination, bool& present,
                   RetryBudget& budget, UpdateError& error) {
  present = ProbePathWithRetry(source, budget) != PathKind::kAbsent;
  return !present || MakeRecoveryCopy(source, destination, budget, error);
}

}  // namespace talvex
