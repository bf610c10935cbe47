// Talvex.exe: a game client without the game. It does everything that a client has to do to work with the
// helper, and logs it in plain lines; copy from it.
//
//   Talvex.exe                        starts the client
//   Talvex.exe --update RELEASE_DIR   installs the release that was downloaded to RELEASE_DIR
//
// Exit codes:
//   0   the client ran; or the release is installed already
//   1   failure: the last line of the log says why
//   2   the command line is neither of the two above
//   3   the helper was started to install a release, and will start the client again
//   4   the helper was started to restore the previous release
//
// Lines of the log (TALVEX_CLIENT_LOG):
//   restarted after an update                    by the helper, with its handoff
//   found an unfinished update                   a rollback journal that no client has settled
//   healthy release=ID sequence=N                the check after an update passed
//   broken: REASON                               ... or failed; also the check before leftovers are cleared
//   rollback started
//   no rollback: REASON                          ... and the newer release is installed instead
//   may be installed again                       the release rolled back was cut off, never started
//   running release=ID sequence=N                or: running without a recorded release
//   installed already release=ID sequence=N
//   kept PATH                                    a retired file that the player changed stays
//   staged release=ID sequence=N install=N retire=N
//   update started
//   ERROR: REASON

#include <windows.h>
// Needs windows.h first.
#include <shellapi.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "core/local_memory.h"
#include "core/publisher_key.h"
#include "core/regular_file.h"
#include "core/system_library.h"
#include "core/text_encoding.h"
#include "examples/client/client_lock.h"
#include "examples/client/handoff.h"
#include "examples/client/health_check.h"
#include "examples/client/helper_start.h"
#include "examples/client/log.h"
#include "examples/client/release_offer.h"
#include "examples/client/staging.h"
#include "formats/installed_state.h"
#include "formats/rollback_journal.h"
#include "formats/verified_cache.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"
#include "storage/work_storage.h"

namespace talvex::example {
namespace {

constexpr int kExitDone = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitUpdateStarted = 3;
constexpr int kExitRollbackStarted = 4;

constexpr wchar_t kUpdateOption[] = L"--update";
constexpr DWORD kPathCapacity = 32'768;  // characters

// Empty files as notes from one start of the client to the next. In `previous`, and removed with it: the
// release was started and has not yet proved healthy; a rollback was started. In the work directory: the
// release being rolled back was never started.
constexpr wchar_t kFailedNoteName[] = L"failed";
constexpr wchar_t kRestoringNoteName[] = L"restoring";
constexpr wchar_t kInterruptedNoteName[] = L"interrupted";

constexpr wchar_t kDriveRoot[] = L"Talvex cannot be updated at the top of a drive.";
constexpr wchar_t kDiedAtStart[] = L"The last start of this release did not come to its end.";
constexpr wchar_t kLeftover[] = L"A file of an unfinished update was left behind.";
constexpr wchar_t kRestoredInVain[] = L"An earlier rollback did not come to its end.";

int Fail(const UpdateError& error) {
  LogLine(L"ERROR: " + error.Message());
  return kExitFailed;
}

std::wstring Describe(const Manifest& manifest) {
  return L"release=" + Utf8ToWide(manifest.release) + L" sequence=" + std::to_wstring(manifest.sequence);
}

// The directory of this program.
std::wstring FindClientRoot(UpdateError& error) {
  std::wstring path(kPathCapacity, L'\0');
  const DWORD length = GetModuleFileNameW(nullptr, path.data(), kPathCapacity);
  path.resize(length < kPathCapacity ? length : 0);
  const std::wstring_view directory = ParentOfRelativePath(path);
  if (directory.ends_with(L':')) {  // without its backslash, the current directory of that drive
    SetError(error, kDriveRoot);
    return {};
  }
  return ResolveClientRoot(directory, error);
}

// A failure to write a note is ignored: each note only improves a rare case.
void LeaveNote(const std::wstring& path) {
  UpdateError unreported;
  static_cast<void>(WriteNewFile(path, {}, unreported));
}

// One start of the client in `client_root`, from the lock to the exit.
class Client {
 public:
  explicit Client(std::wstring client_root) : client_root_(std::move(client_root)) {}

  // `release_directory` is empty for a plain start.
  int Run(const std::wstring& release_directory) {
    Handoff handoff = TakeHandoff();
    UpdateError error;
    if (!TakeLock(handoff, error)) {
      return Fail(error);
    }
    RemoveOldHelpers(client_root_);
    LiftMarkerOfInterrupted();
    const bool updates = !release_directory.empty();
    // In both cases a newer release can still repair the directory: it must not be kept from the player.
    if (!handoff.present && !MayExist(journal_)) {
      if (!ClearLeftoverData(error) && !updates) {
        return Fail(error);
      }
    } else if (!SettleUpdate(handoff)) {
      if (RollBack(updates, error)) {
        return kExitRollbackStarted;
      }
      if (!updates) {
        return Fail(error);
      }
      LogLine(L"no rollback: " + error.Message());
    }
    return updates ? Update(release_directory) : Play();
  }

 private:
  bool TakeLock(Handoff& handoff, UpdateError& error) {
    if (handoff.present && lock_.TakeOver(std::move(handoff.lock), error)) {
      LogLine(L"restarted after an update");
      return true;
    }
    handoff.present = false;
    return lock_.Take(client_root_, error);
  }

  // An update is settled when its client has found itself healthy, or was rolled back. A journal without a
  // handoff is left by an update that never got that far: the helper was killed, the power failed, the
  // restart failed, or the restarted client crashed. An intact release, whether the new or the previous one,
  // needs no rollback, and then the copies are no longer needed.
  bool SettleUpdate(const Handoff& handoff) {
    if (!handoff.present) {
      LogLine(L"found an unfinished update");
    }
    Manifest installed;
    UpdateError error;
    DeleteFileW(interrupted_note_.c_str());  // left by an earlier rollback that did not finish
    if (!IsHealthy(handoff, installed, error)) {
      LogLine(L"broken: " + error.Message());
      if (handoff.present) {
        LeaveNote(failed_note_);
      }
      return false;
    }
    LogLine(L"healthy " + Describe(installed));
    DeleteFileW(failed_note_.c_str());
    static_cast<void>(
        RemovePreviousDirectory(previous_directory_, error));  // the next update clears what stays
    return true;
  }

  // Copies without a journal cannot undo anything: they were left by an update that had changed nothing yet,
  // or by a cleanup that was cut off. An intact release does not need them. A damaged one cannot be rolled
  // back, and is not started either: an update repairs it.
  bool ClearLeftoverData(UpdateError& error) const {
    if (!MayExist(previous_directory_)) {
      return true;
    }
    Manifest installed;
    if (MayExist(InstalledStatePath(client_root_)) && !CheckFiles(client_root_, nullptr, installed, error)) {
      LogLine(L"broken: " + error.Message());
      return false;
    }
    UpdateError unreported;
    static_cast<void>(RemovePreviousDirectory(previous_directory_, unreported));  // or the next update does
    return true;
  }

  bool IsHealthy(const Handoff& handoff, Manifest& installed, UpdateError& error) const {
    if (MayExist(failed_note_)) {
      return Refuse(error, kDiedAtStart);
    }
    if (!CheckFiles(client_root_, handoff.present ? &handoff.manifest_digest : nullptr, installed, error)) {
      return false;
    }
    if (HasLeftovers(installed)) {
      return Refuse(error, kLeftover);
    }
    // Order: the note before the start, because a process that dies can no longer write one.
    LeaveNote(failed_note_);
    return TryToStart(client_root_, error);
  }

  // New files of an update that was cut off before it replaced the first old one: the previous release is
  // intact, but no release would ever manage them.
  bool HasLeftovers(const Manifest& installed) const {
    RollbackJournal journal;
    UpdateError unreported;
    return ParseRollbackJournal(journal_, journal, unreported) &&
           std::any_of(journal.entries.begin(), journal.entries.end(), [&](const RollbackEntry& row) {
             return !row.retired && !row.existed && FindManifestEntry(installed, row.wide_path) == nullptr &&
                    MayExist(JoinPath(client_root_, row.wide_path));
           });
  }

  // True when the helper was started. A rollback that was cut off is run again; but one that failed may fail
  // forever, so when a newer release is given, rollback is tried only once.
  bool RollBack(bool has_release, UpdateError& error) {
    if (has_release && MayExist(restoring_note_)) {
      return Refuse(error, kRestoredInVain);
    }
    LeaveNote(restoring_note_);
    if (!MayExist(failed_note_)) {
      LeaveNote(interrupted_note_);
    }
    if (!StartRollback(client_root_, lock_.Get(), error)) {
      return false;
    }
    LogLine(L"rollback started");
    lock_.Release();
    return true;
  }

  // The helper marks every release that it rolls back as failed. One whose installation was cut off has shown
  // no fault: after the rollback it may be installed again.
  void LiftMarkerOfInterrupted() const {
    if (MayExist(interrupted_note_) && !MayExist(journal_)) {
      LogLine(L"may be installed again");
      DeleteFileW(FailureMarkerPath(client_root_).c_str());
      DeleteFileW(interrupted_note_.c_str());
    }
  }

  int Update(const std::wstring& release_directory) {
    ReleaseOffer offer;
    UpdateError error;
    if (!LoadReleaseOffer(client_root_, release_directory, offer, error)) {
      return Fail(error);
    }
    const ReleaseChanges changes = FindChanges(client_root_, offer);
    if (changes.installs.empty() && changes.retires.empty()) {
      LogLine(L"installed already " + Describe(offer.release.manifest));
      return kExitDone;
    }
    StagedRelease staged;
    if (!StageRelease(client_root_, offer, changes, staged, error)) {
      return Fail(error);
    }
    LogLine(L"staged " + Describe(offer.release.manifest) + L" install=" +
            std::to_wstring(changes.installs.size()) + L" retire=" + std::to_wstring(changes.retires.size()));
    if (!StartUpdate(client_root_, offer, staged, lock_.Get(), error)) {
      return Fail(error);
    }
    LogLine(L"update started");
    lock_.Release();
    return kExitUpdateStarted;
  }

  // The game would be played here, with the lock held to the end.
  int Play() {
    InstalledState state;
    Manifest installed;
    const bool is_recorded = LoadTrustedState(client_root_, PublisherKeyBlob(), state, installed);
    LogLine(is_recorded ? L"running " + Describe(installed) : L"running without a recorded release");
    return kExitDone;
  }

  const std::wstring client_root_;
  const std::wstring work_directory_ = WorkDirectory(client_root_);
  const std::wstring interrupted_note_ = JoinPath(work_directory_, kInterruptedNoteName);
  const std::wstring previous_directory_ = PreviousDirectory(client_root_);
  const std::wstring journal_ = RollbackJournalPath(previous_directory_);
  const std::wstring failed_note_ = JoinPath(previous_directory_, kFailedNoteName);
  const std::wstring restoring_note_ = JoinPath(previous_directory_, kRestoringNoteName);
  ClientLock lock_;
};

int RunClient() {
  OpenLog();
  int count = 0;
  const ArgumentVector arguments(CommandLineToArgvW(GetCommandLineW(), &count));
  const bool updates = arguments != nullptr && count == 3 && std::wstring_view(arguments[1]) == kUpdateOption;
  if (!updates && count != 1) {
    return kExitUsage;
  }
  UpdateError error;
  const std::wstring client_root = FindClientRoot(error);
  const std::wstring release_directory = updates ? ResolveClientRoot(arguments[2], error) : std::wstring();
  if (client_root.empty() || (updates && release_directory.empty())) {
    return Fail(error);
  }
  return Client(client_root).Run(release_directory);
}

}  // namespace
}  // namespace talvex::example

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR, int) {
  talvex::RestrictDllSearch();
  return talvex::example::RunClient();
}
