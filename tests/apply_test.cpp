// The changes themselves, under conditions that a whole run meets only by chance.

#include <gtest/gtest.h>

#include <windows.h>

#include "apply/file_installation.h"
#include "core/text_encoding.h"
#include "storage/client_root.h"
#include "tests/support/client_directory.h"

namespace talvex::test {
namespace {

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

TEST_F(Installation, RetriesOnlyWhatMayPass) {
  const auto milliseconds = [](const auto& work) {
    const ULONGLONG start = GetTickCount64();
    EXPECT_FALSE(work());
    return GetTickCount64() - start;
  };
  EXPECT_LT(milliseconds([&] {
              return ReplaceFileWithRetry(root_ / L"absent", root_ / L"stage\\added",
                                          root_ / L"copies\\absent");
            }),
            1'000u);
  EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
  const OwnedHandle holder(CreateFileW((root_ / L"gone").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                       OPEN_EXISTING, 0, nullptr));
  const ULONGLONG waited = milliseconds(
      [&] { return MoveFileWithRetry(root_ / L"gone", root_ / L"copies\\gone", MOVEFILE_WRITE_THROUGH); });
  EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
  EXPECT_GE(waited, 1'900u);
  EXPECT_LT(waited, 4'000u);
}

}  // namespace
}  // namespace talvex::test
