// Paths below the client directory, and the making and removing of directories there: nothing outside is ever
// reached, through a link least of all. Which calls may fail on the way is tried in fault_matrix_test.

#include <gtest/gtest.h>

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "storage/client_root.h"
#include "storage/work_storage.h"
#include "tests/support/import_patch.h"
#include "tests/support/scratch_directory.h"

namespace talvex::test {
namespace {

TEST(UpdatePaths, LieInTheClientDirectoryAndHaveFewerThan260Characters) {
  constexpr wchar_t kEscapes[] = L"An update path escapes the client directory or is too long.";
  const std::wstring root = L"C:\\Games\\Client";
  const std::wstring longest(259 - root.size() - 1, L'x');
  const struct {
    std::wstring base, relative, full;
    const wchar_t* message;
  } cases[] = {
      {root, L"", root, L""},
      {L"C:/Games/x/../Client\\\\", L"a\\..\\b/c", root + L"\\b\\c", L""},
      {root, L"..\\CLIENT\\a", L"C:\\Games\\CLIENT\\a", L""},  // the same directory in other letters
      {root, L"..\\ClientOther\\x", L"", kEscapes},
      {root, L"..", L"", kEscapes},
      {root, longest, root + L"\\" + longest, L""},
      {root, longest + L"x", L"", kEscapes},
      {L"C:\\", L"", L"C:\\", L""},
      {L"C:\\", L"a", L"", kEscapes},  // no separator follows the root's own
      {L"", L"a", L"", L"The client directory is empty."},
      {std::wstring(32'768, L'x'), L"a", L"", L"Could not resolve the client directory: "},
  };
  for (const auto& c : cases) {
    UpdateError error;
    std::wstring full = L"left over";
    EXPECT_EQ(ResolveUpdatePath(c.base, c.relative, full, error), *c.message == L'\0');
    EXPECT_EQ(full, c.full);
    EXPECT_TRUE(error.Message().starts_with(c.message)) << WideToUtf8(error.Message());
  }
}

TEST(UpdatePaths, AreJoinedWithOneSeparator) {
  EXPECT_EQ(JoinPath(L"a\\", L"b"), L"a\\b");
  EXPECT_EQ(JoinPath(L"a/", L"b"), L"a/b");
}

TEST(UpdateDirectories, AreMadeInTheClientDirectoryAndNeverThroughALink) {
  constexpr wchar_t kLinked[] = L"An update path contains a reparse point.";
  constexpr wchar_t kRootUnsafe[] = L"The client directory is missing or is a reparse point.";
  ScratchDirectory scratch;
  MakeTestDirectory(scratch / L"elsewhere");
  MakeTestDirectory(scratch / L"root\\real\\inner");
  WriteTestFile(scratch / L"root\\file", "");
  MakeJunction(scratch / L"root\\real\\link", scratch / L"elsewhere");
  MakeJunction(scratch / L"linked-root", scratch / L"root");
  const struct {
    const wchar_t *base, *relative, *message;
  } cases[] = {
      {L"root", L"a\\\\b\\c", L""},
      {L"root", L"A\\b", L""},
      {L"root", L"real\\link", kLinked},
      {L"root", L"real\\link\\below", kLinked},
      {L"root", L"real\\link\\..\\inner", kLinked},  // as written, not as normalised
      {L"linked-root", L"real", kRootUnsafe},
      {L"absent", L"", kRootUnsafe},
      {L"root\\file", L"", kRootUnsafe},
      {L"root", L"file", L"An update directory is unsafe."},
      {L"root", L"new\\bad|name", L"Could not create an update directory: "},
  };
  UpdateError error;
  std::wstring full;
  for (const auto& c : cases) {
    SetError(error, L"");
    EXPECT_EQ(CreateUpdateDirectory(scratch / c.base, c.relative, full, error), *c.message == L'\0');
    EXPECT_TRUE(error.Message().starts_with(c.message)) << WideToUtf8(error.Message());
  }
  EXPECT_TRUE(IsRealDirectory(scratch / L"root\\a\\b\\c"));
  EXPECT_TRUE(ReadTree(scratch / L"elsewhere").empty());
  EXPECT_TRUE(RejectReparsePoints(scratch / L"root", L"real\\link", LastComponent::kUnchecked, error));
  std::wstring path = L"earlier";
  EXPECT_FALSE(ResolveCheckedPath(scratch / L"root", L"real\\link", path, error));
  EXPECT_EQ(path, L"");
}

// What deleting a file says that stays all the same, because somebody has it open; none: it is deleted.
std::optional<BOOL> answer_of_a_file_that_stays;
std::vector<std::wstring> deleted;
const auto real_delete = ImportedFunction<decltype(DeleteFileW)>("DeleteFileW");

// Whoever could exchange a directory between two deletions would choose what is deleted.
BOOL WINAPI TryToExchangeAndDelete(const wchar_t* path) {
  const std::wstring directory(ParentOfRelativePath(path));
  EXPECT_FALSE(MoveFileW(directory.c_str(), (directory + L"-away").c_str()));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
  deleted.emplace_back(path);
  return answer_of_a_file_that_stays ? *answer_of_a_file_that_stays : real_delete(path);
}

class WorkTrees : public testing::Test {
 protected:
  WorkTrees() {
    WriteTestFile(tree_ + L"\\a\\deep\\file", "1");
    WriteTestFile(read_only_, "2");
    SetFileAttributesW(read_only_.c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN);
    WriteTestFile(foreign_journal_, "of somebody else");
    deleted.clear();
  }
  ~WorkTrees() override { EXPECT_EQ(ReadTestFile(foreign_journal_), "of somebody else"); }

  // What the removal says; "" when it succeeds.
  static std::wstring Message(bool (*remove)(const std::wstring&, UpdateError&), const std::wstring& path) {
    UpdateError error;
    const bool removed = remove(path, error);
    EXPECT_EQ(removed, error.IsEmpty());
    return error.Message();
  }
  static bool ClearExceptPrevious(const std::wstring& path, UpdateError& error) {
    return ClearWorkDirectoryExcept(path, L"previous", error);
  }

  ScratchDirectory scratch_;
  const std::wstring tree_ = scratch_ / L"tree";
  const std::wstring read_only_ = tree_ + L"\\read-only";
  const std::wstring elsewhere_ = scratch_ / L"elsewhere";
  const std::wstring foreign_journal_ = elsewhere_ + L"\\previous\\rollback.journal";
  const ImportPatch patch_{"DeleteFileW", &TryToExchangeAndDelete};
};

constexpr wchar_t kFileStays[] = L"Could not remove old updater work data.";

TEST_F(WorkTrees, AreRemovedWhole) {
  answer_of_a_file_that_stays = FALSE;
  EXPECT_EQ(Message(RemoveWorkTree, tree_), kFileStays);
  answer_of_a_file_that_stays.reset();
  EXPECT_EQ(Message(RemoveWorkTree, tree_), L"");
  EXPECT_FALSE(MayExist(tree_));
  EXPECT_EQ(Message(RemoveWorkTree, tree_), L"");  // there is none
}

TEST_F(WorkTrees, AreNeverLeftThroughALink) {
  constexpr wchar_t kUnsafe[] = L"An updater work directory is unsafe.";
  const std::wstring link = tree_ + L"\\a\\deep\\link";
  MakeJunction(link, elsewhere_);
  EXPECT_EQ(Message(RemoveWorkTree, tree_), L"An updater work directory contains a reparse point.");
  EXPECT_EQ(Message(RemoveWorkTree, link), kUnsafe);
  EXPECT_EQ(Message(RemoveWorkTree, read_only_), kUnsafe);
  EXPECT_EQ(Message(RemovePreviousDirectory, link + L"\\previous"), kUnsafe);  // nor looked for behind one
}

TEST_F(WorkTrees, LoseNothingBeforeTheirJournal) {
  const std::wstring journal = tree_ + L"\\rollback.journal";
  WriteTestFile(journal, "j");
  for (const BOOL answer : {FALSE, TRUE}) {
    answer_of_a_file_that_stays = answer;
    EXPECT_EQ(Message(RemovePreviousDirectory, tree_), kFileStays);
  }
  EXPECT_EQ(deleted, (std::vector{journal, journal}));
  answer_of_a_file_that_stays.reset();
  SetFileAttributesW(journal.c_str(), FILE_ATTRIBUTE_READONLY);
  EXPECT_EQ(Message(RemovePreviousDirectory, tree_), L"");
  EXPECT_FALSE(MayExist(tree_));

  MakeTestDirectory(journal);  // no journal, and no more than any other directory
  EXPECT_EQ(Message(RemovePreviousDirectory, tree_), L"");
  EXPECT_FALSE(MayExist(tree_));
}

// Unlike a tree's removal, clearing deletes files directly in the directory as they are.
TEST_F(WorkTrees, AreClearedExceptForOneName) {
  MakeTestDirectory(tree_ + L"\\PREVIOUS\\files");
  EXPECT_EQ(Message(ClearExceptPrevious, tree_), L"Could not remove stale updater data.");
  SetFileAttributesW(read_only_.c_str(), FILE_ATTRIBUTE_NORMAL);
  EXPECT_EQ(Message(ClearExceptPrevious, tree_), L"");
  EXPECT_EQ(ReadTree(tree_), (Tree{{L"PREVIOUS\\", ""}, {L"PREVIOUS\\files\\", ""}}));
  EXPECT_EQ(Message(ClearExceptPrevious, scratch_ / L"absent"), L"");
  // By a plain path, this one is the directory that is kept.
  const std::wstring twin = L"\\\\?\\" + tree_ + L"\\previous.";
  ASSERT_TRUE(CreateDirectoryW(twin.c_str(), nullptr));
  EXPECT_EQ(Message(ClearExceptPrevious, tree_), L"Could not remove stale updater data.");
  EXPECT_TRUE(MayExist(tree_ + L"\\PREVIOUS\\files"));
  RemoveDirectoryW(twin.c_str());
  MakeJunction(tree_ + L"\\link", elsewhere_);
  EXPECT_EQ(Message(ClearExceptPrevious, tree_), L"Updater storage contains an unsafe reparse point.");
}

}  // namespace
}  // namespace talvex::test
