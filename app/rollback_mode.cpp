#include "app/rollback_mode.h"

#include <windows.h>

#include <string>

#include "app/reporting.h"
#include "core/exit_code.h"
#include "core/memory_shortage.h"
#include "core/transaction_handles.h"
#include "rollback/rollback_transaction.h"
#include "storage/client_root.h"

namespace talvex {
namespace {

constexpr int kArgumentCount = 5;

constexpr wchar_t kInvalidData[] = L"The rollback helper received invalid transaction data.";
constexpr wchar_t kHandlesLost[] = L"The rollback ownership handles were lost.";
constexpr wchar_t kClientStillRuns[] = L"Talvex did not close in time for rollback.";
constexpr wchar_t kLockNotAcquired[] = L"Talvex could not retain its rollback ownership lock.";
constexpr wchar_t kRestoreFailed[] = L"Talvex could not restore the previous client files.";
constexpr wchar_t kReasonSeparator[] = L"\n\n";
constexpr wchar_t kRestored[] =
    L"The last update could not start correctly, so Talvex restored the previous client files. A newer "
    L"update is required before this release will be tried again.";

int FailWith(const wchar_t* message) {
  ShowUpdateFailure(message);
  return kExitFailed;
}

}  // namespace

int RunRollbackMode(int argument_count, const wchar_t* const* arguments) {
  if (argument_count != kArgumentCount) {
    return kExitUsage;
  }
  UpdateError unreported;  // an unusable path is invalid data, whatever Windows says of it
  const std::wstring client_root = ResolveClientRoot(arguments[2], unreported);
  const HANDLE parent = ParseHandle(arguments[3]);
  const HANDLE lock = ParseHandle(arguments[4]);
  if (client_root.empty() || parent == nullptr || lock == nullptr) {
    return FailWith(kInvalidData);
  }
  // The handles that are still open are closed after a failure's message box.
  TransactionHandles handles(parent, lock);
  if (!handles.AreOpen()) {
    return FailWith(kHandlesLost);
  }
  if (!handles.WaitForParentExit()) {
    return FailWith(kClientStillRuns);
  }
  if (!handles.AcquireLock()) {
    return FailWith(kLockNotAcquired);
  }
  UpdateError error;
  // If memory runs out, the journal and the copies stay, and the next run finishes the rollback.
  const bool restored = RunCatchingBadAlloc([&] { return RunRollbackTransaction(client_root, error); });
  handles.ReleaseTransactionHandles();
  if (!restored && error.IsEmpty()) {
    return FailWith(kRestoreFailed);
  }
  if (!restored) {
    return FailWith((std::wstring(kRestoreFailed) + kReasonSeparator + error.Message()).c_str());
  }
  ShowNotice(kUpdateCaption, kRestored);
  return kExitDone;
}

}  // namespace talvex
