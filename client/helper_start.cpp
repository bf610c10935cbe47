#include "client/helper_start.h"

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>

#include "client/helper_place.h"
#include "core/child_process.h"
#include "core/owned_handle.h"
#include "core/text_encoding.h"
#include "formats/rollback_journal.h"
#include "storage/update_layout.h"

namespace talvex::client {
namespace {

constexpr wchar_t kStartFailed[] = L"The update helper could not be started";

// What the helper inherits. The first two are also operands; the third keeps the directory taken as long as
// the helper runs.
struct HelperHandles {
  OwnedHandle parent;
  OwnedHandle lock;
  OwnedHandle directory_lock;
};

talvex_result MakeHelperHandles(const ClientLock& lock, HelperHandles& handles, Failure& failure) {
  // The helper only waits for its parent. Nobody owns the mutex: the helper takes it when this process has
  // exited, and the restarted client waits for it until the helper has finished.
  SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
  handles.parent = DuplicateInheritable(GetCurrentProcess(), SYNCHRONIZE, 0);
  if (handles.parent.IsValid()) {
    handles.lock.Reset(CreateMutexW(&inheritable, FALSE, nullptr));
  }
  if (handles.lock.IsValid()) {
    handles.directory_lock = lock.MakeInheritable();
  }
  return handles.directory_lock.IsValid()
             ? TALVEX_OK
             : FailWithWindowsError(failure, TALVEX_E_SYSTEM, kStartFailed, GetLastError());
}

std::wstring HandleText(const OwnedHandle& handle) {
  return std::to_wstring(reinterpret_cast<std::uintptr_t>(handle.Get()));
}

// No operand contains a quotation mark or ends in a backslash: resolved client roots do neither, and the rest
// are digits.
std::wstring CommandLine(const std::wstring& program, std::initializer_list<std::wstring> operands) {
  std::wstring line = L"\"" + program + L"\"";
  for (const std::wstring& operand : operands) {
    line += L" \"" + operand + L"\"";
  }
  return line;
}

// A launcher may have put this process into a job that ends all its processes together; the helper has to
// outlive it. A job that lets nobody leave refuses that, and is then left to its maker.
talvex_result StartPlaced(const PlacedHelper& placed, const std::wstring& command_line,
                          const HelperHandles& handles, Failure& failure) {
  const auto start = [&](DWORD flags) {
    ChildProcess helper;
    // In its own directory: a current directory cannot be removed.
    return StartChildProcess(placed.program, command_line, placed.directory,
                             {handles.parent.Get(), handles.lock.Get(), handles.directory_lock.Get()}, helper,
                             flags);
  };
  if (start(CREATE_BREAKAWAY_FROM_JOB) || (GetLastError() == ERROR_ACCESS_DENIED && start(0))) {
    return TALVEX_OK;
  }
  return FailWithWindowsError(failure, TALVEX_E_SYSTEM, kStartFailed, GetLastError());
}

// The manifest of the release that the journal in `previous` undoes, proven with one of the keys.
bool LoadRecoveryManifest(const std::wstring& previous, const TrustedKeys& keys, Manifest& release,
                          UpdateError& error) {
  RollbackJournal journal;
  return ParseRollbackJournal(RollbackJournalPath(previous), journal, error) &&
         std::any_of(keys.begin(), keys.end(), [&](const ByteBuffer& key) {
           release = {};
           return VerifyRecoveryManifest(previous, journal, key, release, error);
         });
}

}  // namespace

talvex_result StartUpdate(const std::wstring& client_root, const Manifest& release,
                          const StagedRelease& staged, const ClientLock& lock, Failure& failure) {
  PlacedHelper placed;
  HelperHandles handles;
  if (PlaceHelper(client_root, staged.helper_path, release, placed, failure) != TALVEX_OK ||
      MakeHelperHandles(lock, handles, failure) != TALVEX_OK) {
    return failure.code;
  }
  return StartPlaced(placed,
                     CommandLine(placed.program, {L"--apply-plan", client_root, staged.stage_root,
                                                  HandleText(handles.parent), DigestToHex(release.digest),
                                                  DigestToHex(staged.plan_digest), HandleText(handles.lock)}),
                     handles, failure);
}

talvex_result StartRollback(const std::wstring& client_root, const TrustedKeys& keys, const ClientLock& lock,
                            Failure& failure) {
  const std::wstring previous = PreviousDirectory(client_root);
  Manifest release;
  PlacedHelper placed;
  HelperHandles handles;
  if (!LoadRecoveryManifest(previous, keys, release, failure.error)) {
    return Fail(failure, TALVEX_E_SYSTEM);
  }
  if (PlaceHelper(client_root, RecoveryHelperPath(previous), release, placed, failure) != TALVEX_OK ||
      MakeHelperHandles(lock, handles, failure) != TALVEX_OK) {
    return failure.code;
  }
  return StartPlaced(placed,
                     CommandLine(placed.program, {L"--rollback-journal", client_root,
                                                  HandleText(handles.parent), HandleText(handles.lock)}),
                     handles, failure);
}

}  // namespace talvex::client
