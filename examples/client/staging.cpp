#include "examples/client/staging.h"

#include <windows.h>

#include <algorithm>
#include <string_view>

#include "core/regular_file.h"
#include "core/sha256.h"
#include "core/text_encoding.h"
#include "examples/client/health_check.h"
#include "examples/client/log.h"
#include "formats/apply_plan.h"
#include "formats/text_lines.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"
#include "storage/work_storage.h"

namespace talvex::example {
namespace {

constexpr wchar_t kCopyFailed[] = L"A file of the release could not be copied";
constexpr wchar_t kNoHelper[] = L"The release has no update helper of its own.";

// A retired file that the player changed would make the helper reject the whole update. It is the player's
// file now: the plan leaves it alone, and so does every later release.
bool MayRetire(const std::wstring& client_root, const ManifestEntry& entry) {
  UpdateError unreported;
  if (IsFileOfRelease(client_root, entry, unreported)) {
    return true;
  }
  if (MayExist(JoinPath(client_root, entry.normalised_path))) {
    LogLine(L"kept " + entry.normalised_path);
  }
  return false;
}

bool StageFile(const ReleaseOffer& offer, const std::wstring& stage_root, const ManifestEntry& entry,
               UpdateError& error) {
  const std::wstring relative_path = JoinPath(FilesDirectory(L""), entry.normalised_path);
  std::wstring source;
  std::wstring destination;
  std::wstring directory;
  if (!ResolveCheckedPath(offer.directory, relative_path, source, error) ||
      !ResolveCheckedPath(stage_root, relative_path, destination, error) ||
      !CreateUpdateDirectory(stage_root, ParentOfRelativePath(relative_path), directory, error)) {
    return false;
  }
  if (!CopyFileW(source.c_str(), destination.c_str(), TRUE)) {
    return RefuseWithWindowsError(error, kCopyFailed, GetLastError());
  }
  SetFileAttributesW(destination.c_str(), FILE_ATTRIBUTE_NORMAL);  // a read-only one could not be replaced
  // The helper verifies the file again, but by then the client has exited and cannot fetch it again.
  return IsFileOfRelease(FilesDirectory(stage_root), entry, error);
}

// A read-only file can be moved away but not replaced, and its copy could not be restored for good.
void MakeReplaceable(const std::wstring& client_root, std::wstring_view relative_path) {
  std::wstring path;
  UpdateError unreported;  // what cannot be changed here, the helper rejects
  if (ResolveCheckedPath(client_root, relative_path, path, unreported)) {
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
  }
}

bool WritePlan(const ReleaseOffer& offer, const ReleaseChanges& changes, StagedRelease& staged,
               UpdateError& error) {
  const std::string plan = FormatApplyPlan(offer.release.manifest.digest, changes.installs, changes.retires);
  std::vector<const ManifestEntry*> installs;
  std::vector<const ManifestEntry*> retires;
  return ParseApplyPlan(AsBytes(plan), offer.release.manifest,
                        offer.has_installed ? &offer.installed : nullptr, offer.release.manifest.digest,
                        installs, retires, error) &&
         Sha256OfBuffer(AsBytes(plan), staged.plan_digest, error) &&
         WriteNewFile(ApplyPlanPath(staged.stage_root), AsBytes(plan), error);
}

}  // namespace

ReleaseChanges FindChanges(const std::wstring& client_root, const ReleaseOffer& offer) {
  ReleaseChanges changes;
  UpdateError unreported;
  for (const ManifestEntry& entry : offer.release.manifest.entries) {
    if (!IsFileOfRelease(client_root, entry, unreported)) {
      changes.installs.push_back(&entry);
    }
  }
  for (const ManifestEntry& entry : offer.installed.entries) {
    if (FindManifestEntryIgnoringCase(offer.release.manifest, entry.normalised_path) == nullptr &&
        MayRetire(client_root, entry)) {
      changes.retires.push_back(&entry);
    }
  }
  // All files match, but another release or none is recorded: the plan needs at least one row for the helper
  // to record this one.
  if (changes.installs.empty() && changes.retires.empty() &&
      (!offer.has_installed || !DigestsEqual(offer.installed.digest, offer.release.manifest.digest))) {
    changes.installs.push_back(&offer.release.manifest.entries.front());
  }
  return changes;
}

bool StageRelease(const std::wstring& client_root, const ReleaseOffer& offer, const ReleaseChanges& changes,
                  StagedRelease& staged, UpdateError& error) {
  const Manifest& manifest = offer.release.manifest;
  if (!RejectReparsePoints(client_root, WorkDirectory(L""), LastComponent::kChecked, error) ||
      !ClearWorkDirectoryExcept(WorkDirectory(client_root), kPreviousDirectoryName, error) ||
      !CreateUpdateDirectory(client_root, StageRoot(L"", manifest.digest), staged.stage_root, error)) {
    return false;
  }
  const SignedPairPaths pair = SignedPairIn(staged.stage_root);
  if (!WriteNewFile(pair.manifest, offer.release.manifest_bytes, error) ||
      !WriteNewFile(pair.signature, offer.release.signature, error)) {
    return false;
  }
  for (const ManifestEntry* const entry : changes.installs) {
    if (!StageFile(offer, staged.stage_root, *entry, error)) {
      SetError(error, entry->normalised_path + L": " + error.Message());
      return false;
    }
    MakeReplaceable(client_root, entry->normalised_path);
  }
  for (const ManifestEntry* const entry : changes.retires) {
    MakeReplaceable(client_root, entry->normalised_path);
  }
  const SignedPairPaths cache = SignedPairIn(CacheDirectory(L""));
  for (const std::wstring& path : {InstalledStatePath(L""), cache.manifest, cache.signature}) {
    MakeReplaceable(client_root, path);
  }
  const ManifestEntry* const helper = FindManifestEntry(manifest, kHelperFileName);
  if (helper == nullptr) {
    return Refuse(error, kNoHelper);
  }
  const bool helper_is_staged =
      std::find(changes.installs.begin(), changes.installs.end(), helper) != changes.installs.end();
  staged.helper_path =
      JoinPath(helper_is_staged ? FilesDirectory(staged.stage_root) : client_root, kHelperFileName);
  return WritePlan(offer, changes, staged, error);
}

}  // namespace talvex::example
