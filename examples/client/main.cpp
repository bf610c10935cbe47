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
//   broken: REASON                               ... or did not
//   rollback started
//   running release=ID sequence=N                or: running without a recorded release
//   installed already release=ID sequence=N
//   kept PATH                                    a retired file that the player changed stays
//   staged release=ID sequence=N install=N retire=N
//   update started
//   ERROR: REASON

#include <windows.h>
// Needs windows.h first.
#include <shellapi.h>

#include <memory>
#include <string>
#include <string_view>

#include "core/publisher_key.h"
#include "core/text_encoding.h"
#include "examples/client/client_lock.h"
#include "examples/client/handoff.h"
#include "examples/client/health_check.h"
#include "examples/client/helper_start.h"
#include "examples/client/log.h"
#include "examples/client/release_offer.h"
#include "examples/client/staging.h"
#include "formats/verified_cache.h"
#include "rollback/rollback_preparation.h"
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
  return ResolveClientRoot(ParentOfRelativePath(path), error);
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
    if (NeedsSettling(handoff) && !SettleUpdate(handoff)) {
      return RollBack();
    }
    return release_directory.empty() ? Play() : Update(release_directory);
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
  // did, or the restarted client crashed.
  bool NeedsSettling(const Handoff& handoff) const {
    if (handoff.present) {
      return true;
    }
    if (!PathExists(JoinPath(previous_directory_, kRollbackJournalName))) {
      return false;
    }
    LogLine(L"found an unfinished update");
    return true;
  }

  // A whole release, be it the new one or the previous one, needs no rollback, and then nobody needs the
  // copies any longer.
  bool SettleUpdate(const Handoff& handoff) {
    Manifest installed;
    UpdateError error;
    if (!CheckHealth(client_root_, handoff.present ? &handoff.manifest_digest : nullptr, installed, error)) {
      LogLine(L"broken: " + error.Message());
      return false;
    }
    LogLine(L"healthy " + Describe(installed));
    static_cast<void>(
        RemoveWorkTree(previous_directory_, error));  // what stays is cleared by the next update
    return true;
  }

  int RollBack() {
    UpdateError error;
    if (!StartRollback(client_root_, lock_.Get(), error)) {
      return Fail(error);
    }
    LogLine(L"rollback started");
    lock_.Release();
    return kExitRollbackStarted;
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
  const std::wstring previous_directory_ =
      JoinPath(JoinPath(client_root_, kWorkDirectoryName), kPreviousDirectoryName);
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
  return talvex::example::RunClient();
}
