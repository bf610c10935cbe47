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
#include "formats/installed_state.h"
#include "formats/text_lines.h"
#include "formats/verified_cache.h"
#include "rollback/rollback_preparation.h"
#include "storage/client_root.h"
#include "storage/work_storage.h"

namespace talvex::example {
namespace {

// Of a downloaded and of a staged release alike.
constexpr std::wstring_view kFilesName = L"files";

constexpr std::wstring_view kCopyFailed = L"A file of the release could not be copied";
constexpr std::wstring_view kNoHelper = L"The release has no update helper of its own.";

// A retired file that the player changed would make the helper refuse the whole update. It is the player's
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
  const std::wstring relative_path = JoinPath(kFilesName, entry.normalised_path);
  std::wstring source;
  std::wstring destination;
  std::wstring directory;
  if (!ResolveCheckedPath(offer.directory, relative_path, source, error) ||
      !ResolveCheckedPath(stage_root, relative_path, destination, error) ||
      !CreateUpdateDirectory(stage_root, ParentOfRelativePath(relative_path), directory, error)) {
    return false;
  }
  if (!CopyFileW(source.c_str(), destination.c_str(), TRUE)) {
    SetWindowsError(error, kCopyFailed, GetLastError());
    return false;
  }
  SetFileAttributesW(destination.c_str(), FILE_ATTRIBUTE_NORMAL);  // a read-only one could not be replaced
  // The helper proves the file again, but by then the client is gone and can fetch nothing anew.
  return IsFileOfRelease(JoinPath(stage_root, kFilesName), entry, error);
}

// A read-only file can be moved away but not replaced, and its copy could not be restored for good.
void MakeReplaceable(const std::wstring& client_root, std::wstring_view relative_path) {
  std::wstring path;
  UpdateError unreported;  // what cannot be changed here, the helper refuses
  if (ResolveCheckedPath(client_root, relative_path, path, unreported)) {
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
  }
}

bool WritePlan(const ReleaseOffer& offer, const ReleaseChanges& changes, StagedRelease& staged,
               UpdateError& error) {
  const std::string plan = FormatApplyPlan(offer.manifest.digest, changes.installs, changes.retires);
  std::vector<const ManifestEntry*> installs;
  std::vector<const ManifestEntry*> retires;
  return ParseApplyPlan(AsBytes(plan), offer.manifest, offer.has_installed ? &offer.installed : nullptr,
                        offer.manifest.digest, installs, retires, error) &&
         Sha256OfBuffer(AsBytes(plan), staged.plan_digest, error) &&
         WriteNewFile(JoinPath(staged.stage_root, kApplyPlanFileName), AsBytes(plan), error);
}

}  // namespace

ReleaseChanges FindChanges(const std::wstring& client_root, const ReleaseOffer& offer) {
  ReleaseChanges changes;
  UpdateError unreported;
  for (const ManifestEntry& entry : offer.manifest.entries) {
    if (!IsFileOfRelease(client_root, entry, unreported)) {
      changes.installs.push_back(&entry);
    }
  }
  for (const ManifestEntry& entry : offer.installed.entries) {
    if (FindManifestEntryIgnoringCase(offer.manifest, entry.normalised_path) == nullptr &&
        MayRetire(client_root, entry)) {
      changes.retires.push_back(&entry);
    }
  }
  // All files are there, but as another release or as none: something has to be planned for the helper to
  // record this one.
  if (changes.installs.empty() && changes.retires.empty() &&
      (!offer.has_installed || !DigestsEqual(offer.installed.digest, offer.manifest.digest))) {
    changes.installs.push_back(&offer.manifest.entries.front());
  }
  return changes;
}

bool StageRelease(const std::wstring& client_root, const ReleaseOffer& offer, const ReleaseChanges& changes,
                  StagedRelease& staged, UpdateError& error) {
  const std::wstring digest_text = DigestToHex(offer.manifest.digest);
  if (!RejectReparsePoints(client_root, kWorkDirectoryName, LastComponent::kChecked, error) ||
      !ClearWorkDirectoryExcept(JoinPath(client_root, kWorkDirectoryName), kPreviousDirectoryName, error) ||
      !CreateUpdateDirectory(client_root, JoinPath(kWorkDirectoryName, digest_text), staged.stage_root,
                             error) ||
      !WriteNewFile(JoinPath(staged.stage_root, kManifestFileName), offer.manifest_bytes, error) ||
      !WriteNewFile(JoinPath(staged.stage_root, kSignatureFileName), offer.signature, error)) {
    return false;
  }
  for (const ManifestEntry* const entry : changes.installs) {
    if (!StageFile(offer, staged.stage_root, *entry, error)) {
      return Refuse(error, entry->normalised_path + L": " + error.Message());
    }
    MakeReplaceable(client_root, entry->normalised_path);
  }
  for (const ManifestEntry* const entry : changes.retires) {
    MakeReplaceable(client_root, entry->normalised_path);
  }
  for (const std::wstring& path :
       {std::wstring(kInstalledStateFileName), JoinPath(kCacheDirectoryName, kManifestFileName),
        JoinPath(kCacheDirectoryName, kSignatureFileName)}) {
    MakeReplaceable(client_root, path);
  }
  const ManifestEntry* const helper = FindManifestEntry(offer.manifest, kHelperFileName);
  if (helper == nullptr) {
    return Refuse(error, kNoHelper);
  }
  const bool helper_is_staged =
      std::find(changes.installs.begin(), changes.installs.end(), helper) != changes.installs.end();
  staged.helper_path =
      JoinPath(helper_is_staged ? JoinPath(staged.stage_root, kFilesName) : client_root, kHelperFileName);
  return WritePlan(offer, changes, staged, error);
}

}  // namespace talvex::example
