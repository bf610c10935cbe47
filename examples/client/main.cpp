// Talvex.exe: a game client without the game. It does everything that a client has to do to live with the
// helper, and logs it in plain lines; copy from it.
//
//   Talvex.exe                        starts the client
//   Talvex.exe --update RELEASE_DIR   installs the release that was downloaded to RELEASE_DIR
//
// Exit codes:
//   0   the client ran; or the release is installed already
//   1   it could not: the last line of the log says why
//   2   the command line is none of the two above
//   3   the helper was started to install a release, and will start the client again
//   4   the helper was started to restore the previous release
//
// Lines of the log (TALVEX_CLIENT_LOG):
//   restarted after an update                    by the helper, with its handoff
//   found an unfinished update                   a rollback journal that no client has settled
//   healthy release=ID sequence=N                the check after an update passed
//   broken: REASON                               ... or did not; or the one that clears what an update left
//   rollback started
//   no rollback: REASON                          ... and the newer release goes in instead
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
#include <memory>
#include <string>
#include <string_view>
#include <utility>

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
#include "formats/failure_marker.h"
#include "formats/installed_state.h"
#include "formats/rollback_journal.h"
#include "formats/verified_cache.h"
#include "storage/client_root.h"
#include "storage/work_storage.h"

namespace talvex::example {
namespace {

constexpr int kExitDone = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUnusable = 2;
constexpr int kExitUpdateStarted = 3;
constexpr int kExitRollbackStarted = 4;

constexpr std::wstring_view kUpdateOption = L"--update";
constexpr DWORD kPathCapacity = 32'768;  // characters

// Notes from one start of the client to the next, empty files: in `previous`, and gone with it, that the
// release was started and has not said yet that it runs, and that a rollback was started; in the work
// directory, that the release being rolled back was never started.
constexpr std::wstring_view kFailedNoteName = L"failed";
constexpr std::wstring_view kRestoringNoteName = L"restoring";
constexpr std::wstring_view kInterruptedNoteName = L"interrupted";

constexpr std::wstring_view kDriveRoot = L"Talvex cannot be updated at the top of a drive.";
constexpr std::wstring_view kDiedAtStart = L"The last start of this release did not come to its end.";
constexpr std::wstring_view kLeftover = L"A file of an unfinished update was left behind.";
constexpr std::wstring_view kRestoredInVain = L"An earlier rollback did not come to its end.";

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

// A note that cannot be written is done without: each of them only makes a rare case end better.
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
    // In both cases a newer release can still make the directory whole: the player must not be locked out of
    // it.
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

  // An update is settled when a client of it has found itself healthy, or was rolled back. A journal without
  // a handoff is left by one that never came so far: the helper was killed, the power failed, the restart
  // did, or the restarted client crashed. A whole release, be it the new one or the previous one, needs no
  // rollback, and then nobody needs the copies any longer.
  bool SettleUpdate(const Handoff& handoff) {
    if (!handoff.present) {
      LogLine(L"found an unfinished update");
    }
    Manifest installed;
    UpdateError error;
    DeleteFileW(interrupted_note_.c_str());  // of an earlier rollback, which did not come to its end
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

  // Copies without a journal can undo nothing: an update that had changed nothing yet has left them, or a
  // clearing that was cut off. The release is whole, then, and nobody needs them. One that is not whole
  // cannot be rolled back, and is not played either: an update repairs it.
  bool ClearLeftoverData(UpdateError& error) const {
    if (!MayExist(previous_directory_)) {
      return true;
    }
    Manifest installed;
    if (MayExist(JoinPath(client_root_, kInstalledStateFileName)) &&
        !CheckFiles(client_root_, nullptr, installed, error)) {
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
    // Order: the note before the start, because a process that dies can write nothing any more.
    LeaveNote(failed_note_);
    return TryToStart(client_root_, error);
  }

  // New files of an update that was cut off before it replaced the first old one: the previous release is
  // whole, but nobody would ever manage them.
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
  // for ever, so with a newer release at hand only one is tried.
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

  // The helper marks every release that it rolls back as failed. One that was cut off while it was installed
  // has shown no fault: after the rollback it is welcome again.
  void LiftMarkerOfInterrupted() const {
    if (MayExist(interrupted_note_) && !MayExist(journal_)) {
      LogLine(L"may be installed again");
      DeleteFileW(JoinPath(client_root_, kFailureMarkerFileName).c_str());
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
      LogLine(L"installed already " + Describe(offer.manifest));
      return kExitDone;
    }
    StagedRelease staged;
    if (!StageRelease(client_root_, offer, changes, staged, error)) {
      return Fail(error);
    }
    LogLine(L"staged " + Describe(offer.manifest) + L" install=" + std::to_wstring(changes.installs.size()) +
            L" retire=" + std::to_wstring(changes.retires.size()));
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
  const std::wstring work_directory_ = JoinPath(client_root_, kWorkDirectoryName);
  const std::wstring interrupted_note_ = JoinPath(work_directory_, kInterruptedNoteName);
  const std::wstring previous_directory_ = JoinPath(work_directory_, kPreviousDirectoryName);
  const std::wstring journal_ = JoinPath(previous_directory_, kRollbackJournalName);
  const std::wstring failed_note_ = JoinPath(previous_directory_, kFailedNoteName);
  const std::wstring restoring_note_ = JoinPath(previous_directory_, kRestoringNoteName);
  ClientLock lock_;
};

struct LocalFreeDeleter {
  void operator()(wchar_t** arguments) const noexcept { LocalFree(arguments); }
};

int RunClient() {
  OpenLog();
  int count = 0;
  const std::unique_ptr<wchar_t*, LocalFreeDeleter> arguments(CommandLineToArgvW(GetCommandLineW(), &count));
  const bool updates = arguments != nullptr && count == 3 && arguments.get()[1] == kUpdateOption;
  if (!updates && count != 1) {
    return kExitUnusable;
  }
  UpdateError error;
  const std::wstring client_root = FindClientRoot(error);
  const std::wstring release_directory =
      updates ? ResolveClientRoot(arguments.get()[2], error) : std::wstring();
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
