#include <windows.h>

#include <string>

#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "formats/failure_marker.h"
#include "formats/managed_file.h"
#include "formats/rollback_journal.h"
#include "formats/signed_manifest.h"
#include "formats/verified_cache.h"
#include "publisher/commands.h"
#include "publisher/console.h"
#include "publisher/progress.h"
#include "publisher/release_check.h"
#include "publisher/release_verification.h"
#include "storage/client_notes.h"
#include "storage/client_root.h"
#include "storage/directory_listing.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr wchar_t kAllIsWell[] = L"OK: every file is that of the release, and no update is under way.";
constexpr wchar_t kNothingInstalled[] =
    L"is missing: no update was ever finished here. The client can install any release.";
constexpr wchar_t kNotProven[] =
    L" No installed release can be proven, so the client will accept any release.";
constexpr wchar_t kOtherKey[] =
    L" If the installed release is signed with another key, name the public half of that one with --key.";
constexpr wchar_t kDoNotAgree[] = L"names another release than the manifest in the cache.";
constexpr wchar_t kDiffers[] = L"is not the file of the installed release. The next update replaces it.";
constexpr wchar_t kMissing[] = L"is missing. The next update installs it.";
constexpr wchar_t kUnsettled[] =
    L"is the journal of an update that was not confirmed. "
    L"Start the client: it confirms the update or rolls it back.";
constexpr wchar_t kJournalDamaged[] = L" The update cannot be rolled back; install the release again.";
constexpr wchar_t kStage[] = L"is left of an update that was not finished. The next update removes it.";
constexpr wchar_t kUnfinishedRepair[] =
    L"says that files were found damaged, and have not been found whole since. Start the client: it looks "
    L"again, and an update repairs them.";
constexpr wchar_t kAttempts[] =
    L"counts installations that have not succeeded, or not been confirmed. After the third one, the client "
    L"waits longer and longer before it tries that release again.";
constexpr wchar_t kInUse[] =
    L"is held by a client or helper that is running, and may be changing what was looked at. "
    L"Close the game first.";
constexpr wchar_t kListingFailed[] = L"Could not list the directory";
constexpr wchar_t kFailedRelease[] =
    L"Rolled back earlier, and not installed again: the release with manifest-sha256 ";

// Why LoadTrustedState has given no reason: the first of its steps that fails.
void ExplainMistrust(const std::wstring& root, const PublicKey& key, Findings& findings) {
  InstalledState recorded;
  SignedManifest cached;
  UpdateError error;
  const std::wstring state = InstalledStatePath(L"");
  if (!LoadInstalledState(root, recorded, error)) {
    findings.AddError(state, error.Message() + kNotProven);
  } else if (!recorded.present) {
    findings.AddError(state, kNothingInstalled);
  } else if (!LoadVerifiedCache(root, cached.manifest_bytes, cached.signature, error) ||
             !VerifySignedManifest(cached.manifest_bytes, cached.signature, key.blob, cached.manifest,
                                   error)) {
    findings.AddError(CacheDirectory(L""),
                      error.Message() + kNotProven + (IsSignatureRefused(cached, key) ? kOtherKey : L""));
  } else {
    findings.AddError(state, std::wstring(kDoNotAgree) + kNotProven);
  }
}

void CompareFiles(const std::wstring& root, const Manifest& manifest, Findings& findings) {
  Progress progress(L"Compared", TotalSize(manifest));
  for (const ManifestEntry& entry : manifest.entries) {
    std::wstring path;
    UpdateError error;
    if (ResolveCheckedPath(root, entry.normalised_path, path, error) &&
        ProbePath(path) == PathKind::kAbsent) {
      findings.AddError(entry.normalised_path, kMissing);
    } else if (path.empty() || !VerifyManagedFile(path, entry, kManagedFileSizeLimit, kDiffers, error,
                                                  &Progress::Report, &progress)) {
      findings.AddError(entry.normalised_path, error.Message());
    }
    progress.FinishFile(entry.size);
  }
}

void CheckForStages(const std::wstring& root, Findings& findings) {
  const std::wstring directory = WorkDirectory(root);
  if (!MayExist(directory)) {
    return;
  }
  DirectoryListing listing(directory);
  for (; listing.AtEntry(); listing.Advance()) {
    if (listing.Name() != kPreviousDirectoryName) {
      findings.AddWarning(JoinPath(WorkDirectory(L""), listing.Name()), kStage);
    }
  }
  if (const DWORD code = listing.Error(); code != ERROR_SUCCESS) {
    UpdateError error;
    SetWindowsError(error, kListingFailed, code);
    findings.AddError(WorkDirectory(L""), error.Message());
  }
}

void CheckForUnsettledWork(const std::wstring& root, Findings& findings) {
  const std::wstring journal_path = RollbackJournalPath(PreviousDirectory(root));
  if (MayExist(journal_path)) {
    RollbackJournal journal;
    UpdateError error;
    const std::wstring name = RollbackJournalPath(PreviousDirectory(L""));
    if (ParseRollbackJournal(journal_path, journal, error)) {
      findings.AddWarning(name, kUnsettled);
    } else {
      findings.AddError(name, error.Message() + kJournalDamaged);
    }
  }
  CheckForStages(root, findings);
  const struct {
    std::wstring name;
    const wchar_t* meaning;
  } notes[] = {{DamagedNotePath(L""), kUnfinishedRepair}, {AttemptsPath(L""), kAttempts}};
  for (const auto& note : notes) {
    if (MayExist(JoinPath(root, note.name))) {
      findings.AddWarning(note.name, note.meaning);
    }
  }
  // What a power cut has left can be read, and goes away at the client's next start.
  if (const std::wstring lock = LockPath(root); MayExist(lock) && !CanBeRead(lock)) {
    findings.AddWarning(LockPath(L""), kInUse);
  }
}

}  // namespace

int ShowStatus(const StatusOptions& options) {
  Findings findings;
  PublicKey key;
  JsonWriter json = BeginDocument(L"status");
  const std::wstring root = ExistingDirectory(options.client_directory, findings);
  if (root.empty() || !LoadKey(options.common.key, key, findings)) {
    return Conclude(options.common, findings, {}, &json);
  }
  InstalledState state;
  Manifest manifest;
  if (LoadTrustedState(root, key.blob, state, manifest)) {
    WriteDescription(manifest, json);
    if (!options.common.json) {
      WriteLine(Stream::kOutput, L"Installed " + Describe(manifest));
    }
    CompareFiles(root, manifest, findings);
  } else {
    ExplainMistrust(root, key, findings);
  }
  CheckForUnsettledWork(root, findings);
  // No finding: the marker stays for good, also when a newer release is installed.
  Sha256Digest failed;
  const bool has_failed = LoadFailureMarker(root, failed);
  if (has_failed) {
    json.Key(L"failedManifestSha256");
    json.String(DigestToHex(failed));
  }
  if (has_failed && !options.common.json) {
    WriteLine(Stream::kOutput, kFailedRelease + DigestToHex(failed));
  }
  return Conclude(options.common, findings, kAllIsWell, &json);
}

}  // namespace talvex
