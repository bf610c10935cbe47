#include "client/staging.h"

#include <windows.h>

#include <algorithm>
#include <string_view>

#include "client/read_only_files.h"
#include "client/work_directory.h"
#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "core/sha256.h"
#include "core/text_encoding.h"
#include "formats/apply_plan.h"
#include "formats/managed_file.h"
#include "formats/text_lines.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"

namespace talvex::client {
namespace {

// For what is not a client file: the helper and its copy, manifests, plan and journal.
constexpr std::uint64_t kSpareBytes = 16'777'216;

// The size of the file at `path` in bytes; 0 when there is none.
std::uint64_t SizeOf(const std::wstring& path) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) {
    return 0;
  }
  return (std::uint64_t{data.nFileSizeHigh} << 32) | data.nFileSizeLow;
}

// Whether this user may make nothing in the directory at `path`.
bool IsDenied(const std::wstring& path) {
  const OwnedHandle directory(
      CreateFileW(path.c_str(), FILE_ADD_FILE | FILE_ADD_SUBDIRECTORY,
                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                  FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  return !directory.IsValid() && GetLastError() == ERROR_ACCESS_DENIED;
}

// Whether a file, a link or a directory that denies stands where a directory of the relative path belongs.
bool HasObstacle(const std::wstring& client_root, std::wstring_view relative_path) {
  for (std::size_t end = 0; end != std::wstring_view::npos;) {
    end = relative_path.find(L'\\', end + 1);
    const std::wstring path = JoinPath(client_root, relative_path.substr(0, end));
    if (BlocksDirectory(path) || IsDenied(path)) {
      return true;
    }
  }
  return false;
}

}  // namespace

talvex_result Staging::NextFile(MissingFile& file, Failure& failure) {
  if (const talvex_result result = Compare(failure); result != TALVEX_OK) {
    return result;
  }
  for (; next_ < changes_.installs.size(); ++next_) {
    file.entry = changes_.installs[next_];
    if (!LocateInStage(*file.entry, file.destination, failure.error)) {
      return Fail(failure, TALVEX_E_SYSTEM);
    }
    file.present = SizeOf(file.destination);
    PhaseProgress progress(callbacks_, TALVEX_PHASE_COMPARE, file.entry->size);
    UpdateError unreported;
    if (file.present == file.entry->size &&
        IsFileOfRelease(FilesDirectory(stage_root_), *file.entry, progress, unreported)) {
      continue;  // a download that was complete when an earlier start was cut off
    }
    if (file.present >= file.entry->size) {
      DeleteFileW(file.destination.c_str());
      file.present = 0;
    }
    ++next_;
    return TALVEX_OK;
  }
  next_ = 0;
  return TALVEX_DONE;
}

talvex_result Staging::Stage(StagedRelease& staged, Failure& failure) {
  if (const talvex_result result = Compare(failure); result != TALVEX_OK) {
    return result;
  }
  next_ = 0;
  if (changes_.Empty()) {
    return TALVEX_DONE;
  }
  const ManifestEntry* const helper = FindManifestEntry(offer_.manifest, kHelperFileName);
  const bool helper_is_staged =
      std::find(changes_.installs.begin(), changes_.installs.end(), helper) != changes_.installs.end();
  staged.stage_root = stage_root_;
  staged.helper_path =
      JoinPath(helper_is_staged ? FilesDirectory(stage_root_) : client_root_, kHelperFileName);
  if (const talvex_result result = ProveFiles(failure); result != TALVEX_OK) {
    return result;
  }
  for (const auto* const entries : {&changes_.installs, &changes_.retires}) {
    for (const ManifestEntry* const entry : *entries) {
      ClearReadOnly(client_root_, entry->normalised_path);
    }
  }
  ClearRecordNames(client_root_);
  return WritePlan(staged, failure);
}

talvex_result Staging::Compare(Failure& failure) {
  if (!is_compared_) {
    FindChanges();
    if (!FitIntoOneUpdate(offer_.manifest.digest, changes_)) {
      callbacks_.Log(L"too many changes: retired files stay");
      KeepRetiredFiles(offer_.manifest, changes_);
    }
    if (const talvex_result result = changes_.Empty() ? TALVEX_OK : Prepare(failure); result != TALVEX_OK) {
      return result;
    }
    is_compared_ = true;
  }
  return TALVEX_OK;
}

void Staging::FindChanges() {
  changes_ = {};
  // Only the key that has signed the offer can prove a retired file to the helper, which trusts one key.
  const bool may_retire = installed_.is_proven && installed_.key == offer_.key;
  PhaseProgress progress(callbacks_, TALVEX_PHASE_COMPARE, TotalSize(offer_.manifest));
  UpdateError unreported;
  for (const ManifestEntry& entry : offer_.manifest.entries) {
    if (!IsFileOfRelease(client_root_, entry, progress, unreported)) {
      changes_.installs.push_back(&entry);
    }
    progress.FinishFile(entry.size);
  }
  for (const ManifestEntry& entry : installed_.manifest.entries) {
    if (may_retire && FindManifestEntryIgnoringCase(offer_.manifest, entry.normalised_path) == nullptr &&
        MayRetire(entry, progress)) {
      changes_.retires.push_back(&entry);
    }
  }
  // All files match, but another release or none is recorded.
  if (changes_.Empty() &&
      (!may_retire || !DigestsEqual(installed_.manifest.digest, offer_.manifest.digest))) {
    InstallSmallestFile(offer_.manifest, changes_);
  }
}

// A retired file that the player changed would make the helper reject the whole update. It is the player's
// file now: the plan leaves it alone, and so does every later release.
bool Staging::MayRetire(const ManifestEntry& entry, PhaseProgress& progress) const {
  UpdateError unreported;
  if (IsFileOfRelease(client_root_, entry, progress, unreported)) {
    return true;
  }
  if (MayExist(JoinPath(client_root_, entry.normalised_path))) {
    callbacks_.Log(L"kept " + entry.normalised_path);
  }
  return false;
}

talvex_result Staging::Prepare(Failure& failure) {
  const bool prepared = ClearOtherStages(client_root_, DigestToHex(offer_.manifest.digest), failure.error) &&
                        MakeStageDirectory(FilesDirectory(L""), failure.error);
  return prepared ? CheckFreeSpace(failure) : Fail(failure, TALVEX_E_SYSTEM);
}

// Makes the directory `relative_path` of the stage. A stage with an obstacle in it is moved out of the way,
// or the work directory: what was downloaded is lost, but the update is not.
bool Staging::MakeStageDirectory(const std::wstring& relative_path, UpdateError& error) {
  stage_root_ = StageRoot(client_root_, offer_.manifest.digest);
  const std::wstring path = JoinPath(StageRoot(L"", offer_.manifest.digest), relative_path);
  std::wstring directory;
  const auto make = [&] {
    return CreateUpdateDirectory(client_root_, path, directory, error) && !IsDenied(directory);
  };
  if (make()) {
    return true;
  }
  return HasObstacle(client_root_, path) &&
         ((MoveAside(client_root_, stage_root_) && make()) ||
          (HasObstacle(client_root_, path) && MoveUnneededWorkAside(client_root_) && make()) ||
          CreateUpdateDirectory(client_root_, path, directory, error));
}

// The downloads come to the disk now, and what they replace is copied once more if it has to be restored.
talvex_result Staging::CheckFreeSpace(Failure& failure) const {
  std::uint64_t needed = kSpareBytes;
  for (const ManifestEntry* const entry : changes_.installs) {
    const std::uint64_t present = SizeOf(JoinPath(FilesDirectory(stage_root_), entry->normalised_path));
    needed += entry->size - std::min(present, entry->size);
    needed += SizeOf(JoinPath(client_root_, entry->normalised_path));
  }
  for (const ManifestEntry* const entry : changes_.retires) {
    needed += entry->size;
  }
  ULARGE_INTEGER available{};
  if (!GetDiskFreeSpaceExW(client_root_.c_str(), &available, nullptr, nullptr) ||
      available.QuadPart >= needed) {
    return TALVEX_OK;  // a volume that cannot tell is tried
  }
  const std::uint64_t missing = (needed - available.QuadPart + kBytesPerMiB - 1) / kBytesPerMiB;
  return Fail(
      failure, TALVEX_E_SPACE,
      L"There is not enough room on the disk: " + std::to_wstring(missing) + L" MiB more are needed.");
}

// The path of a file in the stage, whose directory is created, and whose name is free for a file.
bool Staging::LocateInStage(const ManifestEntry& entry, std::wstring& path, UpdateError& error) {
  const std::wstring relative_path = JoinPath(FilesDirectory(L""), entry.normalised_path);
  return MakeStageDirectory(std::wstring(ParentOfRelativePath(relative_path)), error) &&
         ClearFileName(client_root_, JoinPath(stage_root_, relative_path), error) &&
         ResolveCheckedPath(stage_root_, relative_path, path, error);
}

// The helper verifies the files again, but by then the client has exited and cannot fetch them again.
talvex_result Staging::ProveFiles(Failure& failure) {
  std::uint64_t total = 0;
  for (const ManifestEntry* const entry : changes_.installs) {
    total += entry->size;
  }
  PhaseProgress progress(callbacks_, TALVEX_PHASE_STAGE, total);
  for (const ManifestEntry* const entry : changes_.installs) {
    std::wstring path;
    if (!LocateInStage(*entry, path, failure.error)) {
      return Fail(failure, TALVEX_E_SYSTEM);
    }
    if (!IsFileOfRelease(FilesDirectory(stage_root_), *entry, progress, failure.error)) {
      if (SizeOf(path) >= entry->size) {  // a shorter one is a download that was cut off
        DeleteFileW(path.c_str());
      }
      return Fail(failure, TALVEX_E_FILE, entry->normalised_path + L": " + failure.error.Message());
    }
    progress.FinishFile(entry->size);
  }
  return TALVEX_OK;
}

// Writes the manifest, its signature and the plan, whose rows are checked as the helper will check them.
talvex_result Staging::WritePlan(StagedRelease& staged, Failure& failure) {
  const std::string plan = FormatApplyPlan(offer_.manifest.digest, changes_.installs, changes_.retires);
  std::vector<const ManifestEntry*> unused_installs;
  std::vector<const ManifestEntry*> unused_retires;
  const SignedPairPaths pair = SignedPairIn(stage_root_);
  const std::wstring plan_path = ApplyPlanPath(stage_root_);
  for (const std::wstring& path : {pair.manifest, pair.signature, plan_path}) {
    if (!ClearFileName(client_root_, path, failure.error)) {
      return Fail(failure, TALVEX_E_SYSTEM);
    }
    DeleteTemporaryFile(path);  // of an earlier staging
  }
  const bool written =
      ParseApplyPlan(AsBytes(plan), offer_.manifest, installed_.is_proven ? &installed_.manifest : nullptr,
                     offer_.manifest.digest, unused_installs, unused_retires, failure.error) &&
      Sha256OfBuffer(AsBytes(plan), staged.plan_digest, failure.error) &&
      WriteNewFile(pair.manifest, offer_.manifest_bytes, failure.error) &&
      WriteNewFile(pair.signature, offer_.signature, failure.error) &&
      WriteNewFile(plan_path, AsBytes(plan), failure.error);
  return written ? TALVEX_OK : Fail(failure, TALVEX_E_SYSTEM);
}

}  // namespace talvex::client
