#include "rollback/rollback_preparation.h"

#include <windows.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "core/sha256.h"
#include "core/whole_file.h"
#include "formats/installed_state.h"
#include "formats/rollback_journal.h"
#include "formats/verified_cache.h"
#include "rollback/recovery_copy.h"
#include "storage/client_root.h"
#include "storage/work_storage.h"

namespace talvex {
namespace {

// The longest path that Windows can name, its closing zero included.
constexpr DWORD kModulePathLength = 32'768;

constexpr std::wstring_view kTargetNotRegular = L"An update target is not a regular file.";
constexpr std::wstring_view kTargetLinks = L"An update target has unsafe file links.";
constexpr std::wstring_view kRetiredChanged = L"A retired managed file changed locally and was not deleted.";
constexpr std::wstring_view kCacheUnsafe = L"The verified update cache directory is unsafe.";
constexpr std::wstring_view kHelperUnprepared = L"The update helper could not prepare rollback recovery.";

// `old-install` mirrors the client root, so that the loaders of state and cache can read it in the root's
// place.
std::wstring OldCacheName() {
  return JoinPath(kOldInstallName, kCacheDirectoryName);
}

bool MakePreviousDirectories(const std::wstring& previous_directory, UpdateError& error) {
  std::wstring made;
  for (const std::wstring& name : {std::wstring(kRollbackFilesName), std::wstring(kOldInstallName),
                                   OldCacheName(), std::wstring(kRecoveryName)}) {
    if (!CreateUpdateDirectory(previous_directory, name, made, error)) {
      return false;
    }
  }
  return true;
}

// Checks each target and makes the directories of its new file and of its rollback copy.
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
  const std::wstring old_install = JoinPath(previous_directory, kOldInstallName);
  if (!CopyIfPresent(JoinPath(client_root, kInstalledStateFileName),
                     JoinPath(old_install, kInstalledStateFileName), journal.previous_state, budget, error)) {
    return false;
  }
  const std::wstring cache = JoinPath(client_root, kCacheDirectoryName);
  const PathKind cache_kind = ProbePath(cache);
  if (cache_kind != PathKind::kAbsent && cache_kind != PathKind::kDirectory) {
    return Refuse(error, kCacheUnsafe);
  }
  const std::wstring old_cache = JoinPath(previous_directory, OldCacheName());
  return CopyIfPresent(JoinPath(cache, kManifestFileName), JoinPath(old_cache, kManifestFileName),
                       journal.previous_cache_manifest, budget, error) &&
         CopyIfPresent(JoinPath(cache, kSignatureFileName), JoinPath(old_cache, kSignatureFileName),
                       journal.previous_cache_signature, budget, error);
}

// The path of the running program; empty when Windows does not give it whole.
std::wstring RunningProgramPath() {
  std::vector<wchar_t> buffer(kModulePathLength);
  const DWORD length = GetModuleFileNameW(nullptr, buffer.data(), kModulePathLength);
  return length < kModulePathLength ? std::wstring(buffer.data(), length) : std::wstring();
}

// The helper that will roll back must be one that the new release vouches for: a copy of anything else would
// be an unsigned program that the client starts later.
bool SaveRunningHelper(const Manifest& new_manifest, const std::wstring& destination, RetryBudget& budget,
                       UpdateError& error) {
  const ManifestEntry* const entry = FindManifestEntry(new_manifest, kHelperFileName);
  const std::wstring program = RunningProgramPath();
  if (entry == nullptr || program.empty()) {
    return Refuse(error, kHelperUnprepared);
  }
  Sha256Digest digest;
  std::uint64_t size = 0;
  if (!Sha256OfFile(program, entry->size, digest, size, error) || size != entry->size ||
      !DigestsEqual(digest, entry->digest) || !MakeRecoveryCopy(program, destination, budget, error)) {
    return RefuseUnlessExplained(error, kHelperUnprepared);
  }
  return true;
}

// Whether a retired file is still the one that the previous release installed. No size limit: a file that has
// grown is a changed file too, and has to be called that; but its size tells, and it is not read to the end.
bool IsUnchanged(const std::wstring& path, const ManifestEntry& entry, UpdateError& error) {
  std::uint64_t size = 0;
  const OwnedHandle file = OpenFileForHashing(path, std::numeric_limits<std::uint64_t>::max(), size, error);
  if (!file.IsValid()) {
    return false;
  }
  Sha256Digest digest;
  if (size != entry.size || !Sha256OfOpenFile(file.Get(), digest, error) ||
      !DigestsEqual(digest, entry.digest)) {
    return RefuseUnlessExplained(error, kRetiredChanged);
  }
  return true;
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
  const std::wstring recovery = JoinPath(previous_directory, kRecoveryName);
  // Order: the journal last, because a journal on disk promises that everything it names has been saved.
  // Written earlier, a crash at this point would leave a promise that rollback cannot keep.
  return PrepareOperations(client_root, files_directory, operations, journal, error) &&
         SaveStateAndCache(client_root, previous_directory, journal, budget, error) &&
         WriteNewFile(JoinPath(recovery, kRecoveryManifestName), manifest_bytes, error) &&
         WriteNewFile(JoinPath(recovery, kRecoverySignatureName), signature, error) &&
         SaveRunningHelper(new_manifest, JoinPath(recovery, kRecoveryHelperName), budget, error) &&
         SaveRollbackJournal(JoinPath(previous_directory, kRollbackJournalName), journal, error);
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
  return !operation.retire || IsUnchanged(operation.target_path, *operation.entry, error);
}

bool CopyIfPresent(const std::wstring& source, const std::wstring& destination, bool& present,
                   RetryBudget& budget, UpdateError& error) {
  present = ProbePathWithRetry(source, budget) != PathKind::kAbsent;
  return !present || MakeRecoveryCopy(source, destination, budget, error);
}

}  // namespace talvex
