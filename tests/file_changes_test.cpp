// The changes of client files and their undoing, one by one, while somebody else is at work among them: with
// Windows calls replaced where a whole run meets such a moment only by chance.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "apply/file_installation.h"
#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "rollback/restoration.h"
#include "rollback/rollback_preparation.h"
#include "storage/client_root.h"
#include "tests/support/import_patch.h"
#include "tests/support/recording_display.h"
#include "tests/support/scratch_directory.h"

namespace talvex::test {
namespace {

constexpr DWORD kLink = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
constexpr DWORD kAllSleepsMs = 1'950;
constexpr wchar_t kReparsePoint[] = L"An update path contains a reparse point.";
constexpr wchar_t kUnflushed[] = L"An updated file could not be flushed safely before restart.";

// What the replaced calls are told and tell, and the calls themselves, taken before any is replaced.
DWORD slept_ms = 0;
OwnedHandle busy;
DWORD exchange_error = ERROR_SUCCESS;
std::wstring odd_path;
DWORD odd_attributes = 0;
const auto real_copy = ImportedFunction<decltype(CopyFileW)>("CopyFileW");
const auto real_delete = ImportedFunction<decltype(DeleteFileW)>("DeleteFileW");
const auto real_get_attributes = ImportedFunction<decltype(GetFileAttributesW)>("GetFileAttributesW");
const auto real_open = ImportedFunction<decltype(CreateFileW)>("CreateFileW");
const auto real_replace = ImportedFunction<decltype(ReplaceFileW)>("ReplaceFileW");

// Before the last attempt, whoever is busy with a file is done.
void WINAPI CountTheSleep(DWORD ms) {
  slept_ms += ms;
  if (slept_ms == kAllSleepsMs) {
    busy.Reset();
  }
}

DWORD WINAPI AnswerOddly(const wchar_t* path) {
  if (odd_path != path) {
    return real_get_attributes(path);
  }
  SetLastError(ERROR_ACCESS_DENIED);  // of a deleted file that somebody still has open
  return odd_attributes;
}

void TryToExchangeDirectoryOf(const wchar_t* path) {
  const std::wstring directory(ParentOfRelativePath(path));
  exchange_error = MoveFileW(directory.c_str(), (directory + L"-away").c_str()) ? 0 : GetLastError();
}

BOOL WINAPI TryToExchangeAndReplace(const wchar_t* replaced, const wchar_t* replacement,
                                    const wchar_t* backup, DWORD flags, void* exclude, void* reserved) {
  TryToExchangeDirectoryOf(replaced);
  return real_replace(replaced, replacement, backup, flags, exclude, reserved);
}

// The directory of the target stays, but that of the copy becomes a link.
BOOL WINAPI CopyAndTryToExchange(const wchar_t* source, const wchar_t* destination, BOOL fail_if_exists) {
  TryToExchangeDirectoryOf(destination);
  odd_path = ParentOfRelativePath(source);
  odd_attributes = kLink;
  return real_copy(source, destination, fail_if_exists);
}

// A directory turns out to have become a link just before it was held.
HANDLE WINAPI ExchangeWhatIsHeld(const wchar_t* path, DWORD access, DWORD share,
                                 SECURITY_ATTRIBUTES* security, DWORD creation, DWORD flags, HANDLE model) {
  if ((flags & FILE_FLAG_BACKUP_SEMANTICS) != 0) {
    odd_path = path;
    odd_attributes = kLink;
  }
  return real_open(path, access, share, security, creation, flags, model);
}

BOOL WINAPI FailToDeleteWhatGoesByItself(const wchar_t* path) {
  const BOOL deleted = real_delete(path);
  SetLastError(deleted ? ERROR_ACCESS_DENIED : GetLastError());
  return FALSE;
}

// A client with the file "present", a release staged that replaces it and adds "added", and "gone" and
// "never-there" retired.
class Installation : public testing::Test {
 protected:
  Installation() {
    slept_ms = 0;
    odd_path.clear();
    odd_attributes = INVALID_FILE_ATTRIBUTES;
    WriteTestFile(target_, "old");
    WriteTestFile(root_ / L"gone", "retired");
    WriteTestFile(root_ / L"stage\\present", "new");
    WriteTestFile(root_ / L"stage\\added", "new");
    MakeTestDirectory(copies_);
  }

  [[nodiscard]] OwnedHandle Open(const wchar_t* name, DWORD share) const {
    return OwnedHandle(
        CreateFileW((root_ / name).c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, 0, nullptr));
  }
  void GiveASecondName(const std::wstring& file) const {
    ASSERT_TRUE(CreateHardLinkW((root_ / L"link").c_str(), file.c_str(), nullptr));
  }
  [[nodiscard]] ApplyOperation Install(const wchar_t* name, bool existed) const {
    return {&entry_, false, (root_ / L"stage\\") + name, root_ / name, copies_ + name, existed};
  }
  [[nodiscard]] ApplyOperation Retire(const wchar_t* name, bool existed) const {
    return {&entry_, true, {}, root_ / name, copies_ + name, existed};
  }

  // Installs and yields the message, "" for success.
  std::wstring Message(std::size_t fault_index = kNoFaultInjection) {
    UpdateError error;
    const bool installed =
        InstallApplyOperations(root_.Path(), copies_, operations_, display_, fault_index, error);
    EXPECT_EQ(installed, error.IsEmpty());
    return error.Message();
  }

  const ScratchDirectory root_;
  const std::wstring previous_ = root_ / L".talvex-update\\previous";
  const std::wstring copies_ = previous_ + L"\\files\\";
  const std::wstring target_ = root_ / L"present";
  const std::wstring copy_ = copies_ + L"present";
  const ManifestEntry entry_{1, {}, "present", L"present"};  // for all, as all are in the same folder
  std::vector<ApplyOperation> operations_{Install(L"present", true), Install(L"added", false),
                                          Retire(L"gone", true), Retire(L"never-there", false)};
  RecordingDisplay display_;
  const ImportPatch sleep_{"Sleep", &CountTheSleep};
};

TEST_F(Installation, FailsOnPurposeOnlyAfterTheChange) {
  EXPECT_EQ(Message(0), L"Injected update replacement failure.");
  EXPECT_TRUE(operations_[0].applied);
  EXPECT_FALSE(operations_[1].applied);
}

TEST_F(Installation, StopsAtATargetThatIsNotWhatItWas) {
  constexpr wchar_t kChanged[] = L"An update target changed during installation.";
  WriteTestFile(root_ / L"added", "by somebody else");
  EXPECT_EQ(Message(), kChanged);
  EXPECT_TRUE(operations_[0].applied);
  EXPECT_FALSE(operations_[1].applied);
  EXPECT_EQ(ReadTestFile(root_ / L"added"), "by somebody else");
  operations_.erase(operations_.begin(), operations_.begin() + 2);
  DeleteFileW((root_ / L"gone").c_str());
  EXPECT_EQ(Message(), kChanged);
  MakeTestDirectory(root_ / L"gone");
  EXPECT_EQ(Message(), kChanged);
}

TEST_F(Installation, NeverOverwritesARollbackCopy) {
  WriteTestFile(copies_ + L"gone", "an earlier copy");
  EXPECT_EQ(Message(), L"Could not create a rollback copy for a retired update file.");
  EXPECT_EQ(ReadTestFile(copies_ + L"gone"), "an earlier copy");
}

TEST_F(Installation, RefusesAnInstalledFileWithASecondName) {
  GiveASecondName(root_ / L"stage\\added");
  EXPECT_EQ(Message(), kUnflushed);
}

TEST_F(Installation, SharesOneScheduleBetweenTheMoveAndTheFlush) {
  busy = Open(L"stage\\added", FILE_SHARE_READ);
  const OwnedHandle scanner = Open(L"stage\\added", FILE_SHARE_READ | FILE_SHARE_DELETE);
  EXPECT_EQ(Message(), kUnflushed);
  EXPECT_EQ(slept_ms, kAllSleepsMs);
  EXPECT_TRUE(operations_[1].applied);
}

TEST_F(Installation, WaitsForAHeldTargetAndKeepsItsDirectoryInPlace) {
  const ImportPatch replace("ReplaceFileW", &TryToExchangeAndReplace);
  busy = Open(L"present", FILE_SHARE_READ);
  EXPECT_EQ(Message(), L"");
  EXPECT_EQ(slept_ms, kAllSleepsMs);
  EXPECT_EQ(exchange_error, DWORD{ERROR_SHARING_VIOLATION});
}

TEST_F(Installation, ChecksADirectoryOnceItIsHeld) {
  const ImportPatch open("CreateFileW", &ExchangeWhatIsHeld);
  const ImportPatch attributes("GetFileAttributesW", &AnswerOddly);
  EXPECT_EQ(Message(), L"The client directory is missing or is a reparse point.");
  EXPECT_FALSE(operations_[0].applied);
}

// Somebody else's deletion is as good as one's own, but only once there was something to delete.
TEST_F(Installation, TakesAFileForDeletedThatIsGoneAtALaterAttempt) {
  RetrySchedule schedule;
  EXPECT_FALSE(DeleteFileWithRetry(root_ / L"absent", schedule));
  const ImportPatch patch("DeleteFileW", &FailToDeleteWhatGoesByItself);
  EXPECT_TRUE(DeleteFileWithRetry(root_ / L"gone", schedule));
}

// The same client once "present" is installed.
class Restoration : public Installation {
 protected:
  Restoration() {
    WriteTestFile(target_, "new");
    WriteTestFile(copy_, "old");
    DeleteFileW(staged_.c_str());
  }

  // Undoes the installation of the file as often as `count`, and yields the message.
  std::wstring Undo(bool existed, const std::wstring& staged_path = {}, std::size_t count = 1) {
    const ApplyOperation operation{&entry_, false, staged_path, target_, copy_, existed, true};
    const std::vector operations(count, operation);
    UpdateError error;
    const bool restored = RestoreFromRollback(root_.Path(), previous_, {}, operations, error);
    EXPECT_EQ(restored, error.IsEmpty());
    return error.Message();
  }

  const std::wstring staged_ = root_ / L"stage\\present";
};

// A retired file of a terabyte would keep the lock for hours.
TEST_F(Restoration, IsPreparedWithoutReadingAFileOfAnotherSize) {
  MakeSparseFile(target_, std::uint64_t{1} << 40);
  const ImportPatch read("ReadFile", Failing(&ReadFile));
  ApplyOperation operation = Retire(L"present", false);
  UpdateError error;
  EXPECT_FALSE(CheckUpdateTarget(operation, error));
  EXPECT_EQ(error.Message(), L"A retired managed file changed locally and was not deleted.");
}

// Nothing may be saved, and nothing be installed, where one of them is missing.
TEST_F(Restoration, IsNotPreparedWithoutAllOfItsDirectories) {
  const wchar_t* const names[] = {L"files", L"old-install", L"old-install\\.talvex-update-cache",
                                  L"recovery"};
  for (const wchar_t* const name : names) {
    const std::wstring previous = root_ / std::wstring(name) + L"-taken";
    WriteTestFile(JoinPath(previous, name), "in its place");
    UpdateError error;
    EXPECT_FALSE(PrepareRollback(root_.Path(), previous, previous + L"\\files", {}, {}, {}, {}, error));
    EXPECT_EQ(error.Message(), L"An update directory is unsafe.") << name;
  }
}

TEST_F(Restoration, WaitsForHalfAMinuteInAll) {
  const ImportPatch patch("DeleteFileW", Failing(&DeleteFileW));
  EXPECT_EQ(Undo(false, {}, 40), L"Could not remove a file during updater rollback.");
  EXPECT_GT(slept_ms, 29'000u);
  EXPECT_LE(slept_ms, 30'000u);
}

TEST_F(Restoration, TakesNoFileForThereThatItCannotLookAt) {
  DeleteFileW(copy_.c_str());
  EXPECT_EQ(Undo(true), L"");
  const ImportPatch patch("GetFileAttributesW", &AnswerOddly);
  odd_path = target_;
  EXPECT_EQ(Undo(true), L"A required rollback copy is missing.");
  EXPECT_EQ(slept_ms, kAllSleepsMs);
  WriteTestFile(copy_, "old");
  EXPECT_EQ(Undo(true), L"An updater rollback target has unsafe file links.");
}

TEST_F(Restoration, WaitsForNobodyWhereNothingChanged) {
  const OwnedHandle renaming(CreateFileW(root_.Path().c_str(), DELETE,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                         OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  DeleteFileW(copy_.c_str());
  const ApplyOperation untouched[] = {Install(L"present", true), Install(L"added", false)};
  RetryBudget budget(kAllSleepsMs);
  UpdateError error;
  EXPECT_TRUE(RestoreRollbackFiles(root_.Path(), untouched, budget, error));
  EXPECT_EQ(slept_ms, 0u);
  EXPECT_EQ(Undo(true), L"An updater rollback target has unsafe file links.");  // for the state file
}

TEST_F(Restoration, LeavesATargetInPlaceWhoseCopyIsBad) {
  GiveASecondName(copy_);
  EXPECT_EQ(Undo(true, staged_), L"An updater recovery source is not a regular file.");
  EXPECT_EQ(ReadTestFile(target_), "new");
}

TEST_F(Restoration, MovesNothingIntoTheStageThatIsNoRegularFile) {
  DeleteFileW(target_.c_str());
  MakeTestDirectory(target_);
  for (const bool existed : {true, false}) {
    EXPECT_EQ(Undo(existed, staged_), L"An updater rollback target is not a regular file.");
    DeleteFileW(copy_.c_str());
  }
}

TEST_F(Restoration, KeepsTheDirectoryOfATargetAndNoticesAnExchangedCopy) {
  const ImportPatch copy("CopyFileW", &CopyAndTryToExchange);
  const ImportPatch attributes("GetFileAttributesW", &AnswerOddly);
  EXPECT_EQ(Undo(true), kReparsePoint);
  EXPECT_EQ(exchange_error, DWORD{ERROR_SHARING_VIOLATION});
  EXPECT_EQ(ReadTestFile(target_), "old");
  DeleteFileW(target_.c_str());
  EXPECT_EQ(Undo(true), kReparsePoint);  // before anything is touched
  EXPECT_FALSE(MayExist(target_));
}

}  // namespace
}  // namespace talvex::test
