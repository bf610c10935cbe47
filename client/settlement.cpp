#include "client/settlement.h"

#include <windows.h>

#include <algorithm>

#include "client/helper_place.h"
#include "client/helper_start.h"
#include "client/install_attempts.h"
#include "client/installed_release.h"
#include "client/read_only_files.h"
#include "client/work_directory.h"
#include "core/memory_shortage.h"
#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/failure_marker.h"
#include "formats/rollback_journal.h"
#include "storage/client_notes.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"

namespace talvex::client {
namespace {

constexpr wchar_t kDiedAtStart[] = L"The last start of this release did not come to its end.";
constexpr wchar_t kUnhealthy[] = L"This release cannot start.";
constexpr wchar_t kLeftover[] = L"A file of an unfinished update was left behind.";
constexpr wchar_t kRestoredInVain[] = L"An earlier rollback did not come to its end.";

// A failure to write a note is ignored: each note only improves a rare case.
void LeaveNote(const std::wstring& path) {
  UpdateError unreported;
  static_cast<void>(WriteNewFile(path, {}, unreported));
}

// Removes a note or the failure marker, and whatever else somebody has put in its place. Retried: a scanner
// may hold the file.
void DropFile(const std::wstring& client_root, const std::wstring& path) {
  UpdateError unreported;
  static_cast<void>(ClearFileName(client_root, path, unreported));
  DeleteTemporaryFile(path);
}

// The journal of the update that is not settled; without rows if it cannot be read.
RollbackJournal LoadJournal(const std::wstring& client_root) {
  RollbackJournal journal;
  UpdateError unreported;
  return ParseRollbackJournal(RollbackJournalPath(PreviousDirectory(client_root)), journal, unreported)
             ? journal
             : RollbackJournal{};
}

// New files of an update that was cut off before it replaced the first old one: the previous release is
// intact, but no release would ever manage them.
bool HasLeftovers(const std::wstring& client_root, const RollbackJournal& journal,
                  const Manifest& installed) {
  return std::any_of(journal.entries.begin(), journal.entries.end(), [&](const RollbackEntry& row) {
    return !row.retired && !row.existed && FindManifestEntry(installed, row.wide_path) == nullptr &&
           MayExist(JoinPath(client_root, row.wide_path));
  });
}

}  // namespace

std::int32_t Settlement::Run(const Handoff& handoff, const ClientLock& lock, Failure& failure) {
  MakeWorkDirectoryUsable(client_root_);
  LiftMarkerOfInterrupted();
  const std::int32_t start =
      HasJournal() ? SettleUpdate(handoff, lock, failure) : StartWithoutJournal(failure);
  if (start == TALVEX_START_REPAIR) {
    static_cast<void>(Fail(failure, TALVEX_E_DAMAGED));
  }
  return start;
}

std::int32_t Settlement::SettleUpdate(const Handoff& handoff, const ClientLock& lock, Failure& failure) {
  callbacks_.Log(handoff.present ? L"restarted after an update" : L"found an unfinished update");
  RemoveOldHelpers(client_root_);
  DropFile(client_root_, InterruptedNotePath(client_root_));  // left by a rollback that did not finish
  const Sha256Digest* const expected = handoff.present ? &handoff.manifest_digest : nullptr;
  Manifest installed;
  const bool is_whole =
      VerifyInstalledRelease(client_root_, keys_, expected, callbacks_, installed, failure.error);
  // After a repair the copies are known to be damaged: whatever became of the release, they are no better.
  if (is_whole && (IsHealthy(installed, failure.error) || MayExist(DamagedNotePath(client_root_)))) {
    return TALVEX_START_GAME;
  }
  callbacks_.Log(L"broken: " + failure.error.Message());
  if (handoff.present) {
    LeaveNote(FailedNotePath(client_root_));
  }
  return RollBack(lock, is_whole, failure);
}

// Whether the release, whose files are whole, may be started.
bool Settlement::IsHealthy(const Manifest& installed, UpdateError& error) const {
  const RollbackJournal journal = LoadJournal(client_root_);
  if (MayExist(FailedNotePath(client_root_))) {
    return Refuse(error, kDiedAtStart);
  }
  if (HasLeftovers(client_root_, journal, installed)) {
    return Refuse(error, kLeftover);
  }
  callbacks_.Log(L"intact release=" + Utf8ToWide(installed.release) + L" sequence=" +
                 std::to_wstring(installed.sequence));
  if (!journal.entries.empty() && !DigestsEqual(journal.manifest_digest, installed.digest)) {
    // The update was cut off before it had changed anything, or its rollback before its journal was gone.
    if (IsMarkedAsFailed(client_root_, journal.manifest_digest)) {
      DropFile(client_root_, FailureMarkerPath(client_root_));
    }
    return RemovePrevious(error);
  }
  ForgetAttempts(client_root_);
  // Order: the note before the start, because a process that dies can no longer write one.
  LeaveNote(FailedNotePath(client_root_));
  return callbacks_.IsHealthy() || Refuse(error, kUnhealthy);
}

// A rollback that was cut off is run again; but one that failed may fail for ever, and only a newer release
// helps then. So every third start is left to the search for one.
std::int32_t Settlement::RollBack(const ClientLock& lock, bool is_whole, Failure& failure) const {
  const std::wstring note = RestoringNotePath(client_root_);
  const std::wstring second_note = RestoringAgainNotePath(client_root_);
  if (MayExist(second_note)) {
    // In vain so far, the release itself may be what makes the files whole again.
    for (const std::wstring& path : {second_note, note, FailedNotePath(client_root_)}) {
      DropFile(client_root_, path);
    }
    SetError(failure.error, kRestoredInVain);
    callbacks_.Log(L"no rollback: " + failure.error.Message());
    return is_whole ? TALVEX_START_GAME : TALVEX_START_REPAIR;
  }
  if (!MayExist(FailedNotePath(client_root_))) {
    LeaveNote(InterruptedNotePath(client_root_));
  }
  for (const RollbackEntry& row : LoadJournal(client_root_).entries) {
    ClearReadOnly(client_root_, row.wide_path);
    ClearReadOnly(client_root_, JoinPath(FilesDirectory(PreviousDirectory(L"")), row.wide_path));
  }
  ClearRecordNames(client_root_);
  Failure of_start;
  if (StartRollback(client_root_, keys_, lock, of_start) == TALVEX_OK) {
    // The helper waits for this process to end, so the note is in time. Whatever fails now, the helper runs.
    static_cast<void>(RunCatchingBadAlloc([&] {
      LeaveNote(MayExist(note) ? second_note : note);
      callbacks_.Log(L"rollback started");
      return true;
    }));
    return TALVEX_START_EXIT;
  }
  callbacks_.Log(L"no rollback: " + of_start.error.Message());
  DropFile(client_root_, InterruptedNotePath(client_root_));
  // What cannot be rolled back but is whole is played: otherwise two small files that anybody can write would
  // keep the game from ever starting. The copies stay until the release is confirmed: the reason may pass.
  return is_whole ? TALVEX_START_GAME : TALVEX_START_REPAIR;
}

// Copies without a journal cannot undo anything: they were left by an update that had changed nothing yet, or
// by a cleanup that was cut off. A whole release does not need them. A damaged one cannot be rolled back, and
// is not started either: an update repairs it. What was found damaged stays so until it is found whole: the
// helper of a repair that failed may have cleared all copies.
std::int32_t Settlement::StartWithoutJournal(Failure& failure) const {
  const bool was_damaged = MayExist(DamagedNotePath(client_root_));
  if (!was_damaged && !MayExist(PreviousDirectory(client_root_))) {
    return TALVEX_START_GAME;
  }
  Manifest installed;
  if ((was_damaged || MayExist(InstalledStatePath(client_root_))) &&
      !VerifyInstalledRelease(client_root_, keys_, nullptr, callbacks_, installed, failure.error)) {
    callbacks_.Log(L"broken: " + failure.error.Message());
    return TALVEX_START_REPAIR;
  }
  UpdateError unreported;
  static_cast<void>(RemovePrevious(unreported));
  return TALVEX_START_GAME;
}

// The helper marks every release that it rolls back as failed. One whose installation was cut off has shown
// no fault: after the rollback it may be installed again.
void Settlement::LiftMarkerOfInterrupted() const {
  const std::wstring note = InterruptedNotePath(client_root_);
  if (!MayExist(note) || HasJournal()) {
    return;
  }
  const std::wstring marker = FailureMarkerPath(client_root_);
  DropFile(client_root_, marker);
  if (!MayExist(marker)) {  // otherwise the next start tries again
    callbacks_.Log(L"may be installed again");
    DropFile(client_root_, note);
  }
}

bool Settlement::Confirm(UpdateError& error) const {
  if (!HasJournal()) {
    return true;
  }
  callbacks_.Log(L"confirmed");
  return RemovePrevious(error);
}

void Settlement::WithdrawNote() const {
  DropFile(client_root_, FailedNotePath(client_root_));
}

bool Settlement::HasFailed(const Sha256Digest& manifest_digest) const {
  const RollbackJournal journal = LoadJournal(client_root_);
  return !journal.entries.empty() && DigestsEqual(journal.manifest_digest, manifest_digest) &&
         MayExist(FailedNotePath(client_root_));
}

void Settlement::BeginRepair() const {
  if (!MayExist(DamagedNotePath(client_root_))) {
    LeaveNote(DamagedNotePath(client_root_));
    ForgetAttempts(client_root_);
  }
}

bool Settlement::IsUnsettled() const {
  return HasJournal() || MayExist(DamagedNotePath(client_root_));
}

bool Settlement::HasJournal() const {
  return MayExist(RollbackJournalPath(PreviousDirectory(client_root_)));
}

bool Settlement::RemovePrevious(UpdateError& error) const {
  WithdrawNote();
  if (!ClearPrevious(client_root_, error)) {
    return false;
  }
  DropFile(client_root_, DamagedNotePath(client_root_));  // whoever comes here has found the files whole
  return true;
}

}  // namespace talvex::client
