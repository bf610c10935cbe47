// The changes themselves, under conditions that a whole run meets only by chance.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

#include "apply/file_installation.h"
#include "core/text_encoding.h"
#include "storage/client_root.h"
#include "tests/support/client_directory.h"
#include "tests/support/import_patch.h"

namespace talvex::test {
namespace {

// What the patched calls are told and tell, and the calls themselves, taken before anything is patched.
DWORD slept_ms = 0;
int replacements_to_fail = 0;
DWORD exchange_error = ERROR_SUCCESS;
const auto real_replace = ImportedFunction<decltype(ReplaceFileW)>("ReplaceFileW");
const auto real_open = ImportedFunction<decltype(CreateFileW)>("CreateFileW");
const auto real_get_attributes = ImportedFunction<decltype(GetFileAttributesW)>("GetFileAttributesW");
const auto real_delete = ImportedFunction<decltype(DeleteFileW)>("DeleteFileW");

void WINAPI CountTheSleep(DWORD ms) {
  slept_ms += ms;
}

BOOL WINAPI ReplaceAfterFailures(const wchar_t* replaced, const wchar_t* replacement, const wchar_t* backup,
                                 DWORD flags, void* exclude, void* reserved) {
  if (replacements_to_fail-- > 0) {
    SetLastError(ERROR_USER_MAPPED_FILE);
    return FALSE;
  }
  return real_replace(replaced, replacement, backup, flags, exclude, reserved);
}

HANDLE WINAPI FailToOpenForWriting(const wchar_t* path, DWORD access, DWORD share,
                                   SECURITY_ATTRIBUTES* security, DWORD creation, DWORD flags, HANDLE model) {
  if ((access & GENERIC_WRITE) != 0) {
    SetLastError(ERROR_SHARING_VIOLATION);
    return INVALID_HANDLE_VALUE;
  }
  return real_open(path, access, share, security, creation, flags, model);
}

BOOL WINAPI TryToExchangeAndReplace(const wchar_t* replaced, const wchar_t* replacement,
                                    const wchar_t* backup, DWORD flags, void* exclude, void* reserved) {
  const std::wstring directory(ParentOfRelativePath(replaced));
  exchange_error = MoveFileW(directory.c_str(), (directory + L"-away").c_str()) ? 0 : GetLastError();
  return real_replace(replaced, replacement, backup, flags, exclude, reserved);
}

// Somebody has exchanged a directory for a link just before it is held.
std::wstring held_directory;

HANDLE WINAPI NoteTheHold(const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                          DWORD creation, DWORD flags, HANDLE model) {
  if ((flags & FILE_FLAG_BACKUP_SEMANTICS) != 0) {
    held_directory = path;
  }
  return real_open(path, access, share, security, creation, flags, model);
}

DWORD WINAPI ShowAHeldDirectoryAsALink(const wchar_t* path) {
  return held_directory == path ? FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT
                                : real_get_attributes(path);
}

BOOL WINAPI FailToDeleteWhatGoesByItself(const wchar_t* path) {
  const BOOL deleted = real_delete(path);
  SetLastError(deleted ? ERROR_ACCESS_DENIED : GetLastError());
  return FALSE;
}

// A client with the file "present", a release staged that replaces it and adds "added", and "gone" retired.
class Installation : public testing::Test {
 protected:
  Installation() {
    WriteTestFile(root_ / L"present", "old");
    WriteTestFile(root_ / L"gone", "retired");
    WriteTestFile(root_ / L"stage\\present", "new");
    WriteTestFile(root_ / L"stage\\added", "new");
    MakeTestDirectory(root_ / L"copies");
    Add("present", false, true);
    Add("added", false, false);
    Add("gone", true, true);
  }

  void Add(const std::string& name, bool retire, bool existed) {
    const std::wstring wide = Utf8ToWide(name);
    entries_.push_back({1, {}, name, wide});
    operations_.push_back({nullptr, retire, retire ? L"" : root_ / (L"stage\\" + wide), root_ / wide,
                           root_ / (L"copies\\" + wide), existed, false});
  }

  // Installs and yields the message, "" for success.
  std::wstring Install(std::size_t fault_index = kNoFaultInjection) {
    for (std::size_t i = 0; i < operations_.size(); ++i) {
      operations_[i].entry = &entries_[i];
    }
    StatusWindow window;
    UpdateError error;
    const bool installed =
        InstallApplyOperations(root_.Path(), root_ / L"copies", operations_, window, fault_index, error);
    EXPECT_EQ(installed, error.IsEmpty());
    return error.Message();
  }

  ScratchDirectory root_;
  std::vector<ManifestEntry> entries_;
  std::vector<ApplyOperation> operations_;
};

TEST_F(Installation, KeepsACopyOfWhatItChanges) {
  Add("never-there", true, false);
  EXPECT_EQ(Install(), L"");
  EXPECT_EQ(TreeDifference(ReadTree(root_.Path()), Tree{{L"added", "new"},
                                                        {L"copies\\", ""},
                                                        {L"copies\\gone", "retired"},
                                                        {L"copies\\present", "old"},
                                                        {L"present", "new"},
                                                        {L"stage\\", ""}}),
            "");
  for (const ApplyOperation& operation : operations_) {
    EXPECT_TRUE(operation.applied) << operation.entry->path;
  }
}

TEST_F(Installation, FailsOnPurposeOnlyAfterTheChange) {
  EXPECT_EQ(Install(0), L"Injected update replacement failure.");
  EXPECT_TRUE(operations_[0].applied);
  EXPECT_FALSE(operations_[1].applied);
  EXPECT_EQ(ReadTestFile(root_ / L"present"), "new");
}

TEST_F(Installation, StopsAtATargetThatIsNotWhatItWas) {
  constexpr wchar_t kChanged[] = L"An update target changed during installation.";
  WriteTestFile(root_ / L"added", "by somebody else");
  EXPECT_EQ(Install(), kChanged);
  EXPECT_TRUE(operations_[0].applied);
  EXPECT_FALSE(operations_[1].applied);
  EXPECT_EQ(ReadTestFile(root_ / L"added"), "by somebody else");
  operations_.erase(operations_.begin(), operations_.begin() + 2);
  entries_.erase(entries_.begin(), entries_.begin() + 2);
  DeleteFileW((root_ / L"gone").c_str());
  EXPECT_EQ(Install(), kChanged);
  MakeTestDirectory(root_ / L"gone");
  EXPECT_EQ(Install(), kChanged);
}

TEST_F(Installation, NeverOverwritesARollbackCopy) {
  WriteTestFile(root_ / L"copies\\gone", "an earlier copy");
  EXPECT_EQ(Install(), L"Could not create a rollback copy for a retired update file.");
  EXPECT_EQ(ReadTestFile(root_ / L"copies\\gone"), "an earlier copy");
  EXPECT_EQ(ReadTestFile(root_ / L"gone"), "retired");
}

TEST_F(Installation, RefusesAnInstalledFileWithASecondLink) {
  ASSERT_TRUE(CreateHardLinkW((root_ / L"link").c_str(), (root_ / L"stage\\added").c_str(), nullptr));
  EXPECT_EQ(Install(), L"An updated file could not be flushed safely before restart.");
  EXPECT_TRUE(operations_[1].applied);
}

TEST_F(Installation, SharesOneScheduleBetweenTheReplacementAndTheFlush) {
  const ImportPatch sleep("Sleep", &CountTheSleep);
  const ImportPatch replace("ReplaceFileW", &ReplaceAfterFailures);
  const ImportPatch open("CreateFileW", &FailToOpenForWriting);
  slept_ms = 0;
  replacements_to_fail = 7;
  EXPECT_EQ(Install(), L"An updated file could not be flushed safely before restart.");
  EXPECT_EQ(slept_ms, 1'950u);
  EXPECT_TRUE(operations_[0].applied);
}

TEST_F(Installation, KeepsTheDirectoryOfATargetInItsPlace) {
  const ImportPatch replace("ReplaceFileW", &TryToExchangeAndReplace);
  EXPECT_EQ(Install(), L"");
  EXPECT_EQ(exchange_error, DWORD{ERROR_SHARING_VIOLATION});
}

TEST_F(Installation, ChecksADirectoryOnceItIsHeld) {
  const ImportPatch open("CreateFileW", &NoteTheHold);
  const ImportPatch attributes("GetFileAttributesW", &ShowAHeldDirectoryAsALink);
  EXPECT_EQ(Install(), L"The client directory is missing or is a reparse point.");
  held_directory.clear();
  EXPECT_FALSE(operations_[0].applied);
}

TEST_F(Installation, RetriesOnlyWhatMayPass) {
  const ImportPatch sleep("Sleep", &CountTheSleep);
  slept_ms = 0;
  RetrySchedule schedule;
  EXPECT_FALSE(
      ReplaceFileWithRetry(root_ / L"absent", root_ / L"stage\\added", root_ / L"copies\\absent", schedule));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
  EXPECT_EQ(slept_ms, 0u);
  const OwnedHandle holder(CreateFileW((root_ / L"gone").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                       OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(MoveFileWithRetry(root_ / L"gone", root_ / L"copies\\gone", MOVEFILE_WRITE_THROUGH, schedule));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
  EXPECT_EQ(slept_ms, 1'950u);
}

// Somebody else's deletion is as good as one's own, but only once there was something to delete.
TEST_F(Installation, TakesAFileForDeletedThatIsGoneAtALaterAttempt) {
  RetrySchedule schedule;
  EXPECT_FALSE(DeleteFileWithRetry(root_ / L"absent", schedule));
  const ImportPatch sleep("Sleep", &CountTheSleep);
  const ImportPatch patch("DeleteFileW", &FailToDeleteWhatGoesByItself);
  EXPECT_TRUE(DeleteFileWithRetry(root_ / L"gone", schedule));
}

}  // namespace
}  // namespace talvex::test
