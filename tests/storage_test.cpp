#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "storage/client_root.h"
#include "storage/work_storage.h"
#include "tests/support/import_patch.h"
#include "tests/support/scratch_directory.h"

namespace talvex::test {
namespace {

TEST(ClientRoot, LosesItsClosingSeparatorsButADriveKeepsIts) {
  struct {
    const wchar_t* given;
    const wchar_t* root;
  } const cases[] = {
      {L"C:\\Games\\Client\\\\", L"C:\\Games\\Client"},
      {L"C:/Games/Client/", L"C:\\Games\\Client"},
      {L"C:\\Games\\x\\..\\Client", L"C:\\Games\\Client"},
      {L"C:\\", L"C:\\"},
      {L"C:\\\\\\", L"C:\\"},
  };
  UpdateError error;
  for (const auto& c : cases) {
    EXPECT_EQ(ResolveClientRoot(c.given, error), c.root);
  }
  EXPECT_TRUE(error.IsEmpty());
  EXPECT_EQ(ResolveClientRoot(L"", error), L"");
  EXPECT_EQ(error.Message(), L"The client directory is empty.");
  EXPECT_EQ(ResolveClientRoot(std::wstring(32'768, L'x'), error), L"");
  EXPECT_TRUE(error.Message().starts_with(L"Could not resolve the client directory: "));
}

TEST(ClientRoot, JoinsWithOneSeparator) {
  EXPECT_EQ(JoinPath(L"", L"a"), L"a");
  EXPECT_EQ(JoinPath(L"a", L""), L"a");
  EXPECT_EQ(JoinPath(L"a\\", L"b"), L"a\\b");
  EXPECT_EQ(JoinPath(L"a/", L"b"), L"a/b");
  EXPECT_EQ(JoinPath(L"a", L"b"), L"a\\b");
}

TEST(ClientRoot, ContainsOnlyWhatLiesBelowItInFewerThan260Characters) {
  constexpr wchar_t kEscapes[] = L"An update path escapes the client directory or is too long.";
  const std::wstring root = L"C:\\Games\\Client";
  const std::wstring longest(259 - root.size() - 1, L'x');
  struct {
    std::wstring base, relative, full;  // an empty full path: refused
  } const cases[] = {
      {root, L"a\\b", root + L"\\a\\b"},
      {root, L"", root},
      {root, L"a\\..\\b", root + L"\\b"},
      {root, L"a/b", root + L"\\a\\b"},
      {root, L"..\\CLIENT\\a", L"C:\\Games\\CLIENT\\a"},  // the same folder in other letters
      {root, L"..\\ClientOther\\x", L""},
      {root, L"..", L""},
      {root, longest, root + L"\\" + longest},
      {root, longest + L"x", L""},
      {L"C:\\", L"", L"C:\\"},
      {L"C:\\", L"a", L""},  // no separator follows the root's own
  };
  for (const auto& c : cases) {
    UpdateError error;
    std::wstring full = L"left over";
    EXPECT_EQ(ResolveUpdatePath(c.base, c.relative, full, error), !c.full.empty());
    EXPECT_EQ(full, c.full);
    EXPECT_EQ(error.Message(), c.full.empty() ? kEscapes : L"");
  }
}

constexpr wchar_t kHasReparsePoint[] = L"An update path contains a reparse point.";
constexpr wchar_t kRootUnsafe[] = L"The client directory is missing or is a reparse point.";

TEST(ReparsePoints, AreRefusedAnywhereOnTheWay) {
  ScratchDirectory scratch;
  MakeTestDirectory(scratch / L"root\\real\\inner");
  MakeTestDirectory(scratch / L"elsewhere");
  WriteTestFile(scratch / L"root\\file", "");
  MakeJunction(scratch / L"root\\real\\link", scratch / L"elsewhere");
  MakeJunction(scratch / L"linked-root", scratch / L"root");
  struct {
    const wchar_t *base, *relative, *message;
  } const cases[] = {
      {L"root", L"", L""},
      {L"root", L"real\\inner\\absent\\file", L""},
      {L"root", L"absent\\real\\link", L""},
      {L"root", L"real\\link", kHasReparsePoint},
      {L"root", L"real\\link\\below", kHasReparsePoint},
      {L"root", L"real\\link\\..\\inner", kHasReparsePoint},  // as written, not as normalised
      {L"linked-root", L"real", kRootUnsafe},
      {L"absent", L"", kRootUnsafe},
      {L"root\\file", L"", kRootUnsafe},
  };
  for (const auto& c : cases) {
    UpdateError error;
    EXPECT_EQ(RejectReparsePoints(scratch / c.base, c.relative, LastComponent::kChecked, error),
              *c.message == L'\0');
    EXPECT_EQ(error.Message(), c.message) << WideToUtf8(c.relative);
  }
  UpdateError error;
  EXPECT_TRUE(RejectReparsePoints(scratch / L"root", L"real\\link", LastComponent::kUnchecked, error));
}

TEST(UpdateDirectories, AreMadeWholeAndNeverThroughAnythingElse) {
  ScratchDirectory scratch;
  const std::wstring root = scratch / L"root";
  MakeTestDirectory(root);
  MakeTestDirectory(scratch / L"elsewhere");
  WriteTestFile(root + L"\\file", "kept");
  MakeJunction(root + L"\\link", scratch / L"elsewhere");
  UpdateError error;
  std::wstring full;
  EXPECT_TRUE(CreateUpdateDirectory(root, L"a\\\\b\\c", full, error));
  EXPECT_TRUE(CreateUpdateDirectory(root, L"A\\b", full, error));
  EXPECT_FALSE(CreateUpdateDirectory(root, L"link\\d", full, error));
  EXPECT_EQ(error.Message(), kHasReparsePoint);
  EXPECT_FALSE(CreateUpdateDirectory(root, L"file", full, error));
  EXPECT_EQ(error.Message(), L"An update directory is unsafe.");
  EXPECT_FALSE(CreateUpdateDirectory(root, L"new\\bad|name", full, error));
  EXPECT_TRUE(error.Message().starts_with(L"Could not create an update directory: "));
  EXPECT_EQ(ReadTree(root), (Tree{{L"a\\", ""},
                                  {L"a\\b\\", ""},
                                  {L"a\\b\\c\\", ""},
                                  {L"file", "kept"},
                                  {L"link\\", ""},
                                  {L"new\\", ""}}));
  EXPECT_TRUE(ReadTree(scratch / L"elsewhere").empty());
}

// What the patched calls below are told, and the calls themselves, taken before anything is patched.
std::wstring pending_path;
std::wstring exchanged;
DWORD exchange_error = ERROR_SUCCESS;
const auto real_get_attributes = ImportedFunction<decltype(GetFileAttributesW)>("GetFileAttributesW");
const auto real_delete = ImportedFunction<decltype(DeleteFileW)>("DeleteFileW");

DWORD WINAPI AnswerDeletePending(const wchar_t* path) {
  if (pending_path != path) {
    return real_get_attributes(path);
  }
  SetLastError(ERROR_ACCESS_DENIED);
  return INVALID_FILE_ATTRIBUTES;
}

BOOL WINAPI TryToExchangeAndDelete(const wchar_t* path) {
  if (!MoveFileW(exchanged.c_str(), (exchanged + L"-away").c_str()) && exchange_error == ERROR_SUCCESS) {
    exchange_error = GetLastError();
  }
  return real_delete(path);
}

class WorkTrees : public testing::Test {
 protected:
  WorkTrees() {
    WriteTestFile(tree_ + L"\\a\\deep\\file", "1");
    WriteTestFile(tree_ + L"\\read-only", "2");
    SetFileAttributesW((tree_ + L"\\read-only").c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN);
    WriteTestFile(scratch_ / L"elsewhere\\precious", "3");
  }
  void ExpectElsewhereUntouched() const {
    EXPECT_EQ(ReadTree(scratch_ / L"elsewhere"), (Tree{{L"precious", "3"}}));
  }
  ScratchDirectory scratch_;
  std::wstring tree_ = scratch_ / L"tree";
  UpdateError error_;
};

TEST_F(WorkTrees, AreRemovedWholeOrWereNeverThere) {
  EXPECT_TRUE(RemoveWorkTree(tree_, error_));
  EXPECT_EQ(GetFileAttributesW(tree_.c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_TRUE(RemoveWorkTree(tree_, error_));
  EXPECT_TRUE(error_.IsEmpty());
}

TEST_F(WorkTrees, AreNeverLeftThroughAReparsePoint) {
  MakeJunction(tree_ + L"\\a\\deep\\link", scratch_ / L"elsewhere");
  EXPECT_FALSE(RemoveWorkTree(tree_, error_));
  EXPECT_EQ(error_.Message(), L"An updater work directory contains a reparse point.");
  EXPECT_FALSE(RemoveWorkTree(tree_ + L"\\a\\deep\\link", error_));
  EXPECT_EQ(error_.Message(), L"An updater work directory is unsafe.");
  EXPECT_FALSE(RemoveWorkTree(tree_ + L"\\read-only", error_));
  EXPECT_EQ(error_.Message(), L"An updater work directory is unsafe.");
  ExpectElsewhereUntouched();
}

TEST_F(WorkTrees, StopAtAFileInUse) {
  const OwnedHandle holder(CreateFileW((tree_ + L"\\a\\deep\\file").c_str(), GENERIC_READ, FILE_SHARE_READ,
                                       nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(RemoveWorkTree(tree_, error_));
  EXPECT_EQ(error_.Message(), L"Could not remove old updater work data.");
}

TEST_F(WorkTrees, LoseTheirJournalFirstOrNothing) {
  const std::wstring journal = tree_ + L"\\rollback.journal";
  WriteTestFile(journal, "j");
  const Tree before = ReadTree(tree_);
  OwnedHandle holder(
      CreateFileW(journal.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(RemovePreviousDirectory(tree_, error_));
  EXPECT_EQ(error_.Message(), L"Could not remove old updater work data.");
  EXPECT_EQ(ReadTree(tree_), before);
  // Open to be deleted, it is only gone when its reader is.
  holder = OwnedHandle(CreateFileW(journal.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                   nullptr, OPEN_EXISTING, 0, nullptr));
  const ImportPatch pending("GetFileAttributesW", &AnswerDeletePending);
  pending_path = journal;
  EXPECT_FALSE(RemovePreviousDirectory(tree_, error_));
  pending_path.clear();
  holder.Reset();
  EXPECT_EQ(ReadTestFile(tree_ + L"\\a\\deep\\file"), "1");

  WriteTestFile(journal, "j");
  SetFileAttributesW(journal.c_str(), FILE_ATTRIBUTE_READONLY);
  EXPECT_TRUE(RemovePreviousDirectory(tree_, error_));
  EXPECT_FALSE(MayExist(tree_));
  MakeTestDirectory(journal);  // no journal, and no more than any other directory
  EXPECT_TRUE(RemovePreviousDirectory(tree_, error_));
  EXPECT_FALSE(MayExist(tree_));
}

TEST_F(WorkTrees, AreNotLookedForBehindALink) {
  WriteTestFile(scratch_ / L"elsewhere\\previous\\rollback.journal", "of somebody else");
  MakeJunction(scratch_ / L"link", scratch_ / L"elsewhere");
  EXPECT_FALSE(RemovePreviousDirectory(scratch_ / L"link\\previous", error_));
  EXPECT_EQ(error_.Message(), L"An updater work directory is unsafe.");
  EXPECT_EQ(ReadTestFile(scratch_ / L"elsewhere\\previous\\rollback.journal"), "of somebody else");
}

// Whoever could exchange a directory between two deletions would choose what is deleted.
TEST_F(WorkTrees, CannotBeExchangedWhileTheyAreWalked) {
  const ImportPatch patch("DeleteFileW", &TryToExchangeAndDelete);
  exchanged = tree_ + L"\\a";
  exchange_error = ERROR_SUCCESS;
  EXPECT_TRUE(RemoveWorkTree(tree_, error_));
  EXPECT_EQ(exchange_error, DWORD{ERROR_SHARING_VIOLATION});
}

TEST_F(WorkTrees, AreClearedExceptForOneName) {
  MakeTestDirectory(tree_ + L"\\PREVIOUS\\files");
  WriteTestFile(tree_ + L"\\stale", "");
  SetFileAttributesW((tree_ + L"\\read-only").c_str(), FILE_ATTRIBUTE_NORMAL);
  EXPECT_TRUE(ClearWorkDirectoryExcept(tree_, L"previous", error_));
  EXPECT_EQ(ReadTree(tree_), (Tree{{L"PREVIOUS\\", ""}, {L"PREVIOUS\\files\\", ""}}));
  EXPECT_TRUE(ClearWorkDirectoryExcept(scratch_ / L"absent", L"previous", error_));

  MakeJunction(tree_ + L"\\link", scratch_ / L"elsewhere");
  EXPECT_FALSE(ClearWorkDirectoryExcept(tree_, L"previous", error_));
  EXPECT_EQ(error_.Message(), L"Updater storage contains an unsafe reparse point.");
  ExpectElsewhereUntouched();
}

// Unlike a tree's removal, clearing deletes files directly in the directory as they are.
TEST_F(WorkTrees, KeepAReadOnlyFileWhenCleared) {
  EXPECT_FALSE(ClearWorkDirectoryExcept(tree_, L"previous", error_));
  EXPECT_EQ(error_.Message(), L"Could not remove stale updater data.");
  EXPECT_EQ(ReadTestFile(tree_ + L"\\read-only"), "2");
}

}  // namespace
}  // namespace talvex::test
