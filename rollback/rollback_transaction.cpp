#include "rollback/rollback_transaction.h"

#include <string_view>
#include <utility>

#include "core/memory_shortage.h"
#include "core/publisher_key.h"
#include "formats/failure_marker.h"
#include "formats/installed_state.h"
#include "formats/verified_cache.h"
#include "rollback/restoration.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"
#include "storage/work_storage.h"

namespace talvex {
namespace {

constexpr wchar_t kUnprovenRetire[] = L"The rollback cannot prove a retired managed file.";
constexpr wchar_t kUnsignedFile[] = L"The rollback journal contains an unsigned file.";
constexpr wchar_t kRetiresCurrent[] = L"The rollback journal tries to retire a current file.";

// No component of the paths to the journal, the kept manifest, the old cache or the copies may be a reparse
// point: through one, an attacker could choose what is restored.
bool RejectLinkedWorkData(const std::wstring& client_root, UpdateError& error) {
  const std::wstring previous = PreviousDirectory(L"");
  const std::wstring paths[] = {
      RollbackJournalPath(previous),
      RecoveryPair(previous).manifest,
      SignedPairIn(CacheDirectory(OldInstallDirectory(previous))).manifest,
      FilesDirectory(previous),
  };
  for (const std::wstring& path : paths) {
    if (!RejectReparsePoints(client_root, path, LastComponent::kChecked, error)) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool RunRollbackTransaction(const std::wstring& client_root, UpdateError& error) {
  const std::wstring previous_directory = PreviousDirectory(client_root);
  RollbackJournal journal;
  Manifest recovery_manifest;
  if (!RejectLinkedWorkData(client_root, error) ||
      !ParseRollbackJournal(RollbackJournalPath(previous_directory), journal, error) ||
      !VerifyRecoveryManifest(previous_directory, journal, PublisherKeyBlob(), recovery_manifest, error)) {
    return false;
  }

  // The recovery copies mirror the client root, so LoadTrustedState can read them there.
  InstalledState previous_state;
  Manifest previous_manifest;
  const bool has_previous = LoadTrustedState(OldInstallDirectory(previous_directory), PublisherKeyBlob(),
                                             previous_state, previous_manifest);

  std::vector<ApplyOperation> operations;
  if (!CheckJournalAgainstManifests(client_root, previous_directory, journal, recovery_manifest,
                                    has_previous ? &previous_manifest : nullptr, operations, error) ||
      !RestoreFromRollback(client_root, previous_directory, journal, operations, error)) {
    return false;
  }
  // Order: the marker after the files, because it states that the failed release is gone; and before the
  // journal is removed, because without a journal no later run would write it.
  if (!SaveFailureMarker(client_root, journal.manifest_digest, error)) {
    return false;
  }
  // Leftovers are harmless: with the journal every copy is still there, and without it the next update clears
  // the rest.
  UpdateError unreported;
  static_cast<void>(
      RunCatchingBadAlloc([&] { return RemovePreviousDirectory(previous_directory, unreported); }));
  return true;
}

bool CheckJournalAgainstManifests(const std::wstring& client_root, const std::wstring& previous_directory,
                                  const RollbackJournal& journal, const Manifest& recovery_manifest,
                                  const Manifest* previous_manifest, std::vector<ApplyOperation>& operations,
                                  UpdateError& error) {
  operations.clear();
  const std::wstring files_directory = FilesDirectory(previous_directory);
  for (const RollbackEntry& row : journal.entries) {
    const Manifest* const vouching = row.retired ? previous_manifest : &recovery_manifest;
    if (vouching == nullptr) {
      return Refuse(error, kUnprovenRetire);
    }
    ApplyOperation operation;
    operation.entry = FindManifestEntry(*vouching, row.wide_path);
    if (operation.entry == nullptr) {
      return Refuse(error, kUnsignedFile);
    }
    if (row.retired && FindManifestEntry(recovery_manifest, row.wide_path) != nullptr) {
      return Refuse(error, kRetiresCurrent);
    }
    operation.retire = row.retired;
    operation.existed = row.existed;
    if (!ResolveCheckedPath(client_root, row.wide_path, operation.target_path, error) ||
        !ResolveCheckedPath(files_directory, row.wide_path, operation.rollback_copy_path, error)) {
      return false;
    }
    operations.push_back(std::move(operation));
  }
  return true;
}

}  // namespace talvex
