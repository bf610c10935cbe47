#include "rollback/rollback_transaction.h"

#include <string_view>
#include <utility>

#include "core/memory_shortage.h"
#include "core/publisher_key.h"
#include "core/whole_file.h"
#include "formats/failure_marker.h"
#include "formats/installed_state.h"
#include "formats/signed_manifest.h"
#include "formats/verified_cache.h"
#include "rollback/restoration.h"
#include "rollback/rollback_preparation.h"
#include "storage/client_root.h"
#include "storage/work_storage.h"

namespace talvex {
namespace {

constexpr std::wstring_view kRecoveryManifestInvalid = L"The rollback recovery manifest is invalid.";
constexpr std::wstring_view kUnprovenRetire = L"The rollback cannot prove a retired managed file.";
constexpr std::wstring_view kUnsignedFile = L"The rollback journal contains an unsigned file.";
constexpr std::wstring_view kRetiresCurrent = L"The rollback journal tries to retire a current file.";

// No component on the way to the journal, the kept manifest, the old cache or the copies may be a reparse
// point: behind one, somebody else would choose what is restored.
bool RejectLinkedWorkData(const std::wstring& client_root, UpdateError& error) {
  const std::wstring previous = JoinPath(kWorkDirectoryName, kPreviousDirectoryName);
  const std::wstring paths[] = {
      JoinPath(previous, kRollbackJournalName),
      JoinPath(JoinPath(previous, kRecoveryName), kRecoveryManifestName),
      JoinPath(JoinPath(JoinPath(previous, kOldInstallName), kCacheDirectoryName), kManifestFileName),
      JoinPath(previous, kRollbackFilesName),
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
  const std::wstring previous_directory =
      JoinPath(JoinPath(client_root, kWorkDirectoryName), kPreviousDirectoryName);
  const std::wstring journal_path = JoinPath(previous_directory, kRollbackJournalName);
  RollbackJournal journal;
  Manifest recovery_manifest;
  if (!RejectLinkedWorkData(client_root, error) || !ParseRollbackJournal(journal_path, journal, error) ||
      !VerifyRecoveryManifest(previous_directory, journal, recovery_manifest, error)) {
    return false;
  }

  // The recovery copies mirror the client root, so the loader of the trusted state reads them in its place.
  InstalledState previous_state;
  Manifest previous_manifest;
  const bool has_previous = LoadTrustedState(JoinPath(previous_directory, kOldInstallName),
                                             PublisherKeyBlob(), previous_state, previous_manifest);

  std::vector<ApplyOperation> operations;
  if (!CheckJournalAgainstManifests(client_root, previous_directory, journal, recovery_manifest,
                                    has_previous ? &previous_manifest : nullptr, operations, error) ||
      !RestoreFromRollback(client_root, previous_directory, journal, operations, error)) {
    return false;
  }
  // Order: the marker after the files, because it says that the failed release is gone; and before the
  // journal goes, because without a journal nobody would come back to write it.
  if (!SaveFailureMarker(client_root, journal.manifest_digest, error)) {
    return false;
  }
  // What cannot be cleared is harmless: with the journal every copy is still there, and without it the next
  // update clears the rest.
  UpdateError unreported;
  static_cast<void>(
      SucceedsInMemory([&] { return RemovePreviousDirectory(previous_directory, unreported); }));
  return true;
}

bool VerifyRecoveryManifest(const std::wstring& previous_directory, const RollbackJournal& journal,
                            Manifest& recovery_manifest, UpdateError& error) {
  const std::wstring recovery = JoinPath(previous_directory, kRecoveryName);
  ByteBuffer manifest_bytes;
  ByteBuffer signature;
  recovery_manifest = {};
  if (!ReadWholeFile(JoinPath(recovery, kRecoveryManifestName), kManifestSizeLimit, manifest_bytes, error) ||
      !ReadWholeFile(JoinPath(recovery, kRecoverySignatureName), kSignatureSizeLimit, signature, error) ||
      !VerifySignedManifest(manifest_bytes, signature, PublisherKeyBlob(), recovery_manifest, error) ||
      !DigestsEqual(recovery_manifest.digest, journal.manifest_digest)) {
    return RefuseUnlessExplained(error, kRecoveryManifestInvalid);
  }
  return true;
}

bool CheckJournalAgainstManifests(const std::wstring& client_root, const std::wstring& previous_directory,
                                  const RollbackJournal& journal, const Manifest& recovery_manifest,
                                  const Manifest* previous_manifest, std::vector<ApplyOperation>& operations,
                                  UpdateError& error) {
  operations.clear();
  const std::wstring files_directory = JoinPath(previous_directory, kRollbackFilesName);
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
