// Putting files back while somebody else is at work among them.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/regular_file.h"
#include "rollback/restoration.h"
#include "rollback/rollback_preparation.h"
#include "storage/client_root.h"
#include "tests/support/import_patch.h"
#include "tests/support/scratch_directory.h"

namespace talvex::test {
namespace {

// What the patched calls are told and tell, and the calls themselves, taken before anything is patched.
DWORD slept_ms = 0;
std::wstring odd_path;
DWORD odd_attributes = 0;
std::wstring copied_to;
DWORD exchange_error = ERROR_SUCCESS;
const auto real_get_attributes = ImportedFunction<decltype(GetFileAttributesW)>("GetFileAttributesW");
const auto real_copy = ImportedFunction<decltype(CopyFileW)>("CopyFileW");

void WINAPI CountTheSleep(DWORD ms) {
  slept_ms += ms;
}

BOOL WINAPI FailToDelete(const wchar_t*) {
  SetLastError(ERROR_SHARING_VIOLATION);
  return FALSE;
}

DWORD WINAPI AnswerOddly(const wchar_t* path) {
  if (odd_path != path) {
    return real_get_attributes(path);
  }
  SetLastError(ERROR_ACCESS_DENIED);  // of a deleted file that somebody still has open
  return odd_attributes;
}

BOOL WINAPI CopyAndTryToExchange(const wchar_t* source, const wchar_t* destination, BOOL fail_if_exists) {
  const std::wstring directory(ParentOfRelativePath(destination));
  exchange_error = MoveFileW(directory.c_str(), (directory + L"-away").c_str()) ? 0 : GetLastError();
  const BOOL copied = real_copy(source, destination, fail_if_exists);
  odd_path = ParentOfRelativePath(source);
  odd_attributes = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
  return copied;
}

class Restoration : public testing::Test {
 protected:
  Restoration() {
    slept_ms = 0;
    odd_path.clear();
    odd_attributes = INVALID_FILE_ATTRIBUTES;
    WriteTestFile(target_, "new");
    WriteTestFile(copy_, "old");
    MakeTestDirectory(root_ / L"stage");
  }

  // Undoes the installation of data\a as often as `count`, and yields the message.
  std::wstring Undo(bool existed, const std::wstring& staged_path = {}, std::size_t count = 1) {
    const std::vector<ApplyOperation> operations(
        count, ApplyOperation{&entry_, false, staged_path, target_, copy_, existed, true});
    UpdateError error;
    const bool restored = RestoreFromRollback(root_.Path(), previous_, {}, operations, error);
    EXPECT_EQ(restored, error.IsEmpty());
    return error.Message();
  }

  ScratchDirectory root_;
  const ManifestEntry entry_{1, {}, "data/a", L"data\\a"};
  const std::wstring previous_ = root_ / L".talvex-update\\previous";
  const std::wstring target_ = root_ / L"data\\a";
  const std::wstring copy_ = previous_ + L"\\files\\data\\a";
  const ImportPatch sleep_{"Sleep", &CountTheSleep};
};

// A retired file of a terabyte would keep the lock for hours.
TEST_F(Restoration, IsPreparedWithoutReadingAFileOfAnotherSize) {
  MakeSparseFile(target_, std::uint64_t{1} << 40);
  const ImportPatch read("ReadFile", Failing(&ReadFile));
  ApplyOperation operation{&entry_, true, {}, target_, copy_, false, false};
  UpdateError error;
  EXPECT_FALSE(CheckUpdateTarget(operation, error));
  EXPECT_EQ(error.Message(), L"A retired managed file changed locally and was not deleted.");
}

TEST_F(Restoration, WaitsForHalfAMinuteInAll) {
  const ImportPatch patch("DeleteFileW", &FailToDelete);
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
  EXPECT_EQ(slept_ms, 1'950u);
  WriteTestFile(copy_, "old");
  EXPECT_EQ(Undo(true), L"An updater rollback target has unsafe file links.");
}

TEST_F(Restoration, LeavesATargetInPlaceWhoseCopyIsBad) {
  ASSERT_TRUE(CreateHardLinkW((root_ / L"link").c_str(), copy_.c_str(), nullptr));
  EXPECT_EQ(Undo(true, root_ / L"stage\\a"), L"An updater recovery source is not a regular file.");
  EXPECT_EQ(ReadTestFile(target_), "new");
  DeleteFileW((root_ / L"link").c_str());
  EXPECT_EQ(Undo(true, root_ / L"stage\\a"), L"");
  EXPECT_EQ(ReadTestFile(target_), "old");
  EXPECT_EQ(ReadTestFile(root_ / L"stage\\a"), "new");
}

TEST_F(Restoration, MovesNothingIntoTheStageThatIsNoRegularFile) {
  DeleteFileW(target_.c_str());
  MakeTestDirectory(target_);
  for (const bool existed : {true, false}) {
    EXPECT_EQ(Undo(existed, root_ / L"stage\\a"), L"An updater rollback target is not a regular file.");
    DeleteFileW(copy_.c_str());
  }
}

TEST_F(Restoration, KeepsTheDirectoryOfATargetAndNoticesAnExchangedCopy) {
  const ImportPatch copy("CopyFileW", &CopyAndTryToExchange);
  const ImportPatch attributes("GetFileAttributesW", &AnswerOddly);
  EXPECT_EQ(Undo(true), L"An update path contains a reparse point.");
  EXPECT_EQ(exchange_error, DWORD{ERROR_SHARING_VIOLATION});
  EXPECT_EQ(ReadTestFile(target_), "old");
  DeleteFileW(target_.c_str());
  EXPECT_EQ(Undo(true), L"An update path contains a reparse point.");  // before anything is touched
  EXPECT_FALSE(MayExist(target_));
}

}  // namespace
}  // namespace talvex::test
