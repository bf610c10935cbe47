#include "apply/apply_transaction.h"

#include <windows.h>

#include <array>
#include <cstdint>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "apply/client_relaunch.h"
#include "apply/file_installation.h"
#include "apply/file_verification.h"
#include "core/ascii_case.h"
#include "core/exit_code.h"
#include "core/memory_shortage.h"
#include "core/owned_handle.h"
#include "core/publisher_key.h"
#include "core/regular_file.h"
#include "core/sha256.h"
#include "core/text_encoding.h"
#include "core/transaction_handles.h"
#include "core/whole_file.h"
#include "formats/apply_plan.h"
#include "formats/installed_state.h"
#include "formats/rollback_journal.h"
#include "formats/signed_manifest.h"
#include "formats/verified_cache.h"
#include "rollback/recovery_copy.h"
#include "rollback/restoration.h"
#include "rollback/rollback_preparation.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"
#include "storage/work_storage.h"

namespace talvex {
namespace {

constexpr int kArgumentCount = 8;
// Long enough to read the last status text before the window closes.
constexpr DWORD kCompletedTextMs = 1'200;

constexpr wchar_t kVerifyingText[] = L"Verifying update...";
constexpr wchar_t kApplyingText[] = L"Applying update...";
constexpr wchar_t kCompletedText[] = L"Update completed. Starting Talvex...";

// Shown without copying, because some of them report that memory ran out.
constexpr wchar_t kInvalidData[] = L"The update helper received invalid transaction data.";
constexpr wchar_t kHandlesLost[] = L"The update ownership lock was lost.";
constexpr wchar_t kStageOutside[] = L"The update staging directory is outside this Talvex installation.";
constexpr wchar_t kReleaseInvalid[] = L"The signed update transaction is invalid.";
constexpr wchar_t kPlanInvalid[] = L"The update apply plan failed verification.";
constexpr wchar_t kClientStillRuns[] = L"Talvex did not close in time for the update.";
constexpr wchar_t kLockNotAcquired[] = L"Talvex could not retain its update ownership lock.";
constexpr wchar_t kRetiredFileStays[] = L"A retired managed file was not removed.";
constexpr wchar_t kUpdateFailed[] = L"The update failed.";
constexpr wchar_t kFilesRestored[] = L"Your existing files were restored.";
constexpr wchar_t kWorkDataStays[] = L"The rollback data of this update could not be removed.";
constexpr wchar_t kReasonSeparator[] = L"\n\n";

// What the client passed on the command line; the transaction verifies the data that it refers to.
struct Operands {
  std::wstring client_root;
  std::wstring stage_root;
  Sha256Digest manifest_digest;
  Sha256Digest plan_digest;
  std::uint64_t parent_value = 0;
  std::uint64_t lock_value = 0;
};

bool ParseOperands(const wchar_t* const* arguments, Operands& operands) {
  UpdateError unreported;  // an unusable path is invalid data, whatever Windows says of it
  operands.client_root = ResolveClientRoot(arguments[2], unreported);
  operands.stage_root = ResolveClientRoot(arguments[3], unreported);
  return !operands.client_root.empty() && !operands.stage_root.empty() &&
         ParseHandleValue(arguments[4], operands.parent_value) &&
         ParseHexDigest(WideToUtf8(arguments[5]), operands.manifest_digest) &&
         ParseHexDigest(WideToUtf8(arguments[6]), operands.plan_digest) &&
         ParseHandleValue(arguments[7], operands.lock_value) && operands.parent_value <= kMaxHandleValue &&
         operands.lock_value <= kMaxHandleValue && IsRealDirectory(operands.client_root) &&
         IsRealDirectory(operands.stage_root);
}

// One run, from validated operands on. Each method is one step; a step that returns false has set the error,
// unless the failed check has no message of its own or memory ran out.
class ApplyTransaction {
 public:
  ApplyTransaction(Operands operands, TransactionDisplay& display)
      : operands_(std::move(operands)),
        work_directory_(WorkDirectory(operands_.client_root)),
        previous_directory_(PreviousDirectory(operands_.client_root)),
        rollback_files_directory_(FilesDirectory(previous_directory_)),
        staged_files_directory_(FilesDirectory(operands_.stage_root)),
        handles_(HandleFromValue(operands_.parent_value), HandleFromValue(operands_.lock_value)),
        display_(display) {}
  ApplyTransaction(const ApplyTransaction&) = delete;
  ApplyTransaction& operator=(const ApplyTransaction&) = delete;
  ~ApplyTransaction() { display_.StopStatusWindow(); }

  [[nodiscard]] int Run() {
    if (!handles_.AreOpen()) {
      return FailWith(kHandlesLost);
    }
    if (!StageRootIsInPlace()) {
      return FailWith(kStageOutside);
    }
    LoadCurrentRelease();
    if (!LoadStagedRelease()) {
      return FailWith(ErrorOr(kReleaseInvalid));
    }
    if (!LoadPlan()) {
      return FailWith(ErrorOr(kPlanInvalid));
    }
    display_.StartStatusWindow(kVerifyingText);
    if (!BuildOperations()) {
      return FailWith(error_.Message().c_str());
    }
    // Order: both waits before the first change, because until they have succeeded the client may be running
    // and using its files.
    if (!handles_.WaitForParentExit()) {
      return FailWith(kClientStillRuns);
    }
    if (!handles_.AcquireLock()) {
      return FailWith(kLockNotAcquired);
    }
    if (!ClearStaleRollbackData() || !PrepareRollbackData()) {
      return FailWith(error_.Message().c_str());
    }
    // From here on, running out of memory must not end the process with files half replaced: it is a failure
    // like any other.
    if (!RunCatchingBadAlloc([&] { return ChangeClient(); })) {
      return FailRestored();
    }
    return FinishAndRelaunch();
  }

 private:
  int FailWith(const wchar_t* message) {
    display_.StopStatusWindow();
    display_.ShowUpdateFailure(message);
    handles_.ReleaseTransactionHandles();
    return kExitFailed;
  }

  [[nodiscard]] const wchar_t* ErrorOr(const wchar_t* general) const {
    return error_.IsEmpty() ? general : error_.Message().c_str();
  }

  // The stage root must be the one named after the manifest's digest, and no link may lead there or to the
  // rollback data.
  [[nodiscard]] bool StageRootIsInPlace() const {
    UpdateError unreported;
    const std::wstring expected =
        ResolveClientRoot(StageRoot(operands_.client_root, operands_.manifest_digest), unreported);
    return EqualIgnoringAsciiCase(expected, operands_.stage_root) &&
           RejectReparsePoints(operands_.client_root, StageRoot(L"", operands_.manifest_digest),
                               LastComponent::kChecked, unreported) &&
           RejectReparsePoints(operands_.client_root, PreviousDirectory(L""), LastComponent::kChecked,
                               unreported);
  }

  // Having no verifiable installed release is not a failure: such a client accepts any release.
  void LoadCurrentRelease() {
    has_current_ =
        LoadTrustedState(operands_.client_root, PublisherKeyBlob(), current_state_, current_manifest_);
  }

  [[nodiscard]] bool LoadStagedRelease() {
    return LoadSignedManifest(SignedPairIn(operands_.stage_root), PublisherKeyBlob(), staged_, error_) &&
           DigestsEqual(staged_.manifest.digest, operands_.manifest_digest) &&
           CheckReleaseOrder(current_state_, staged_.manifest, error_) &&
           ReadWholeFile(ApplyPlanPath(operands_.stage_root), kApplyPlanSizeLimit, plan_bytes_, error_);
  }

  [[nodiscard]] bool LoadPlan() {
    Sha256Digest plan_digest;
    return Sha256OfBuffer(plan_bytes_, plan_digest, error_) &&
           DigestsEqual(plan_digest, operands_.plan_digest) &&
           ParseApplyPlan(plan_bytes_, staged_.manifest, has_current_ ? &current_manifest_ : nullptr,
                          operands_.manifest_digest, install_entries_, retire_entries_, error_);
  }

  // Installs first, then retires, each in plan order.
  [[nodiscard]] bool BuildOperations() {
    if (!VerifyStagedFiles(staged_files_directory_, operands_.client_root, rollback_files_directory_,
                           install_entries_, operations_, display_, error_)) {
      return false;
    }
    for (const ManifestEntry* const entry : retire_entries_) {
      ApplyOperation operation;
      operation.entry = entry;
      operation.retire = true;
      if (!ResolveCheckedPath(operands_.client_root, entry->normalised_path, operation.target_path, error_) ||
          !ResolveUpdatePath(rollback_files_directory_, entry->normalised_path, operation.rollback_copy_path,
                             error_)) {
        return false;
      }
      operations_.push_back(std::move(operation));
    }
    return true;
  }

  [[nodiscard]] bool ClearStaleRollbackData() {
    std::wstring made;
    return RemovePreviousDirectory(previous_directory_, error_) &&
           CreateUpdateDirectory(work_directory_, kPreviousDirectoryName, made, error_);
  }

  [[nodiscard]] bool PrepareRollbackData() {
    if (PrepareRollback(operands_.client_root, previous_directory_, rollback_files_directory_,
                        staged_.manifest, staged_.manifest_bytes, staged_.signature, operations_, error_)) {
      return true;
    }
    UpdateError unreported;
    static_cast<void>(RemovePreviousDirectory(previous_directory_, unreported));
    return false;
  }

  // Every step that changes the client. Order: the state last, so that it never names a release whose signed
  // manifest is not in the cache.
  [[nodiscard]] bool ChangeClient() {
    display_.SetStatusText(kApplyingText);
    display_.SetStatusProgress(0, operations_.size());
    return InstallApplyOperations(operands_.client_root, rollback_files_directory_, operations_, display_,
                                  kNoFaultInjection, error_) &&
           VerifyInstalledFiles(operands_.client_root, staged_.manifest, display_, error_) &&
           VerifyRetiredFilesAreGone() &&
           SaveVerifiedCache(operands_.client_root, staged_.manifest_bytes, staged_.signature, error_) &&
           SaveInstalledState(operands_.client_root, staged_.manifest, error_);
  }

  [[nodiscard]] bool VerifyRetiredFilesAreGone() {
    for (const ManifestEntry* const entry : retire_entries_) {
      std::wstring path;
      if (!ResolveCheckedPath(operands_.client_root, entry->normalised_path, path, error_)) {
        return false;
      }
      if (MayExist(path)) {
        return Refuse(error_, kRetiredFileStays);
      }
    }
    return true;
  }

  // The journal on disk determines what to restore, as it would for a later run. It is so new that a scanner
  // may hold it: whoever does is waited for, because without the journal nothing at all would be restored.
  [[nodiscard]] bool Restore(UpdateError& restore_error) {
    const std::wstring path = RollbackJournalPath(previous_directory_);
    RetryBudget budget(kMaxRecoveryWaitMs);
    UpdateError unreported;
    const OwnedHandle open = OpenRecoverySource(path, GENERIC_READ, budget, unreported);
    RollbackJournal journal;
    return ParseRollbackJournal(path, journal, restore_error) &&
           RestoreFromRollback(operands_.client_root, previous_directory_, journal, operations_,
                               restore_error);
  }

  // The rollback data is removed only after everything was restored; otherwise the player still needs the
  // copies.
  int FailRestored() {
    UpdateError restore_error;
    const bool restored = RunCatchingBadAlloc([&] { return Restore(restore_error); });
    const bool cleared = restored && RunCatchingBadAlloc([&] {
                           return RemovePreviousDirectory(previous_directory_, restore_error);
                         });
    // A removal may fail without a message, and so does what runs out of memory.
    if (!cleared && restore_error.IsEmpty()) {
      if (restored) {
        SetError(restore_error, kWorkDataStays);
      } else {
        SetRestorationIncomplete(restore_error, rollback_files_directory_);
      }
    }
    std::wstring message(ErrorOr(kUpdateFailed));
    message += kReasonSeparator;
    message += cleared ? kFilesRestored : restore_error.Message();
    return FailWith(message.c_str());
  }

  // From here on the release counts as installed: no failure is a reason to roll it back.
  int FinishAndRelaunch() {
    UpdateError unreported;
    static_cast<void>(RunCatchingBadAlloc(
        [&] { return ClearWorkDirectoryExcept(work_directory_, kPreviousDirectoryName, unreported); }));
    display_.SetStatusText(kCompletedText);
    display_.SetStatusProgress(1, 1);
    Sleep(kCompletedTextMs);
    display_.StopStatusWindow();

    ChildProcess client;
    const bool relaunched =
        RelaunchClient(operands_.client_root, staged_.manifest, handles_.Lock(), client, error_);
    if (!relaunched) {
      display_.ShowUpdateFailure(error_.Message().c_str());
    }
    // Only now: the restarted client has its handle to the mutex, which therefore outlives the helper.
    handles_.ReleaseTransactionHandles();
    client = ChildProcess();
    DeleteOwnProgramAtRestart();
    return relaunched ? kExitDone : kExitFailed;
  }

  // The helper runs from a directory of its own and cannot delete itself; Windows does, at its next start.
  static void DeleteOwnProgramAtRestart() {
    std::array<wchar_t, MAX_PATH> path{};
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    // A path truncated to the buffer names a different file.
    if (length != 0 && length < path.size()) {
      MoveFileExW(path.data(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT);
    }
  }

  const Operands operands_;
  const std::wstring work_directory_;
  const std::wstring previous_directory_;
  const std::wstring rollback_files_directory_;
  const std::wstring staged_files_directory_;
  TransactionHandles handles_;
  TransactionDisplay& display_;

  bool has_current_ = false;
  InstalledState current_state_;
  Manifest current_manifest_;
  SignedManifest staged_;
  ByteBuffer plan_bytes_;
  std::vector<const ManifestEntry*> install_entries_;
  std::vector<const ManifestEntry*> retire_entries_;
  std::vector<ApplyOperation> operations_;

  UpdateError error_;
};

}  // namespace

int RunApplyTransaction(int argument_count, const wchar_t* const* arguments, TransactionDisplay& display) {
  if (argument_count != kArgumentCount) {
    return kExitUsage;
  }
  try {
    Operands operands;
    if (!ParseOperands(arguments, operands)) {
      display.ShowUpdateFailure(kInvalidData);
      return kExitFailed;
    }
    return ApplyTransaction(std::move(operands), display).Run();
  } catch (const std::bad_alloc&) {
    display.ShowUpdateFailure(kUpdateFailed);
    return kExitFailed;
  }
}

}  // namespace talvex
