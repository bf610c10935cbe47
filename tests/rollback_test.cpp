// The rollback mode of the real helper, after a real update and on rollback data of every kind.

#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <string_view>
#include <thread>

#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "storage/client_root.h"
#include "tests/support/client_directory.h"

namespace talvex::test {
namespace {

constexpr wchar_t kRestored[] =
    L"The last update could not start correctly, so Talvex restored the previous client files. A newer "
    L"update is "
    L"required before this release will be tried again.";
const std::wstring kNotRestored = L"Talvex could not restore the previous client files.\n\n";

// Release 2.0 installed over release 1.0, with the rollback data that the update left.
class UpdatedClient : public ClientDirectory {
 public:
  // The flags say which of the three files had existed before the update.
  explicit UpdatedClient(bool state = true, bool cache_manifest = true, bool cache_signature = true) {
    InstallTestRelease(old_release, root);
    WriteTestFile(At(L"screenshots\\mine.png"), "not managed");
    KeepOnlyIf(state, L"TalvexUpdateState.dat");
    KeepOnlyIf(cache_manifest, L".talvex-update-cache\\manifest.txt");
    KeepOnlyIf(cache_signature, L".talvex-update-cache\\manifest.sig");
    before = AllFiles();
    for (const auto& [path, contents] : before) {
      if (path.starts_with(L"TalvexUpdateState") || path.starts_with(L".talvex-update-cache")) {
        WriteTestFile(Previous(L"old-install\\" + path), contents);
      }
    }
    for (const std::wstring path :
         {L"Data\\a.bin", L"TalvexUpdateHelper.exe", L"Data\\deep\\er\\b.bin", L"old\\retired.bin"}) {
      WriteTestFile(Previous(L"files\\" + path), ReadTestFile(At(path)));
    }
    DeleteFileW(At(L"old\\retired.bin").c_str());
    InstallTestRelease(new_release, root);
    WriteTestFile(Previous(L"recovery\\new-manifest.txt"), new_release.ManifestText());
    WriteTestFile(Previous(L"recovery\\new-manifest.sig"), new_release.Signature());
    WriteTestFile(Previous(L"recovery\\rollback-helper.exe"), ReadTestFile(helper));
    // Without the whole previous record nobody can prove what release 1.0 was, so nothing was retired.
    if (state && cache_manifest && cache_signature) {
      journal += "delete\t1\told/retired.bin\n";
    } else {
      WriteTestFile(At(L"old\\retired.bin"), "retired");
    }
    const auto flag = [](bool set) { return set ? "1\n" : "0\n"; };
    head = "TALVEX-ROLLBACK-V1\nmanifest-sha256\t" + HexDigestOf(new_release.ManifestText()) +
           "\nprevious-state\t" + flag(state) + "previous-cache-manifest\t" + flag(cache_manifest) +
           "previous-cache-signature\t" + flag(cache_signature);
    WriteJournal(head + journal);
  }

  [[nodiscard]] std::wstring Previous(const std::wstring& path) const {
    return At(L".talvex-update\\previous\\" + path);
  }
  void WriteJournal(const std::string& text) { WriteTestFile(Previous(L"rollback.journal"), text); }

  void ExpectPreviousRelease() {
    Tree expected = before;
    expected[L"TalvexUpdateFailure.dat"] = HexDigestOf(new_release.ManifestText()) + "\n";
    EXPECT_EQ(TreeDifference(AllFiles(), expected), "");
  }

  Tree before;
  std::string head;
  std::string journal =
      "file\t1\tData/a.bin\nfile\t1\tTalvexUpdateHelper.exe\nfile\t0\tnew/folder/c.bin\n"
      "file\t1\tData/deep/er/b.bin\n";

 private:
  void KeepOnlyIf(bool keep, std::wstring_view path) const {
    if (!keep) {
      DeleteFileW(At(path).c_str());
    }
  }
};

TEST(Rollback, UndoesARealUpdateToTheByteAndMarksIt) {
  ClientDirectory client;
  client.Prepare();
  Tree before = client.AllFiles();
  std::erase_if(before, [](const auto& item) { return item.first.starts_with(L".talvex-update\\"); });
  ASSERT_EQ(client.Apply().exit_code, 0u);
  // The client starts the copy that the update kept, from a place of its own.
  client.helper = client.scratch / L"rollback\\TalvexUpdateHelper.exe";
  WriteTestFile(client.helper,
                ReadTestFile(client.At(L".talvex-update\\previous\\recovery\\rollback-helper.exe")));
  const HelperResult result = client.Rollback();
  EXPECT_EQ(result.exit_code, 0u);
  EXPECT_EQ(result.message, kRestored);
  EXPECT_EQ(result.caption, L"Talvex Update");
  before[L"TalvexUpdateFailure.dat"] = HexDigestOf(client.new_release.ManifestText()) + "\n";
  EXPECT_EQ(TreeDifference(client.AllFiles(), before), "");
  EXPECT_EQ(WaitForSingleObject(client.lock.Get(), 0), WAIT_OBJECT_0);
}

TEST(Rollback, PutsStateAndCacheBackAsTheyWere) {
  for (int flags = 0; flags < 8; ++flags) {
    UpdatedClient client((flags & 1) != 0, (flags & 2) != 0, (flags & 4) != 0);
    EXPECT_EQ(client.Rollback().message, kRestored) << flags;
    client.ExpectPreviousRelease();
  }
}

// Windows does not delete a running program, so what lies beside it may stay; the rollback is whole all the
// same.
TEST(Rollback, WorksFromTheKeptHelperInItsPlace) {
  UpdatedClient client;
  client.helper = client.Previous(L"recovery\\rollback-helper.exe");
  EXPECT_EQ(client.Rollback().exit_code, 0u);
  EXPECT_EQ(TreeDifference(client.ClientFiles(), ClientDirectory::FilesOf(client.old_release)), "");
  EXPECT_FALSE(MayExist(client.Previous(L"rollback.journal")));
}

TEST(Rollback, TakesOverAnAbandonedLock) {
  UpdatedClient client;
  std::thread([&] { WaitForSingleObject(client.lock.Get(), 0); }).join();  // ends while it owns the lock
  EXPECT_EQ(client.Rollback().exit_code, 0u);
  client.ExpectPreviousRelease();
}

struct RefusalCase {
  const char* name;
  void (*arrange)(UpdatedClient& client);
  std::wstring message;
};

void LinkAway(UpdatedClient& client, const std::wstring& path) {
  MoveFileW(client.Previous(path).c_str(), (client.scratch / L"elsewhere").c_str());
  MakeJunction(client.Previous(path), client.scratch / L"elsewhere");
}

// Whatever the journal or the kept manifest is, no file changes unless every row is proven.
const RefusalCase kRefusals[] = {
    {"NoJournal", [](auto& c) { DeleteFileW(c.Previous(L"rollback.journal").c_str()); },
     L"Could not open file: "},
    {"DamagedJournal", [](auto& c) { c.WriteJournal(c.head); },
     L"The update rollback journal has an invalid format."},
    {"JournalOfAnotherRelease",
     [](auto& c) {
       const std::string text = c.head + c.journal;
       c.WriteJournal(text.substr(0, 35) + std::string(64, '0') + text.substr(99));
     },
     L"The rollback recovery manifest is invalid."},
    {"NoRecoveryManifest", [](auto& c) { DeleteFileW(c.Previous(L"recovery\\new-manifest.txt").c_str()); },
     L"Could not open file: "},
    {"ForgedRecoveryManifest",
     [](auto& c) { WriteTestFile(c.Previous(L"recovery\\new-manifest.sig"), SignWithDevelopmentKey("x")); },
     L"The update manifest signature is invalid."},
    {"UnsignedFile", [](auto& c) { c.WriteJournal(c.head + c.journal + "file\t0\tscreenshots/mine.png\n"); },
     L"The rollback journal contains an unsigned file."},
    {"FileInOtherLetters", [](auto& c) { c.WriteJournal(c.head + "file\t1\tdata/a.bin\n"); },
     L"The rollback journal contains an unsigned file."},
    {"RetiresACurrentFile", [](auto& c) { c.WriteJournal(c.head + "delete\t1\tkeep.txt\n"); },
     L"The rollback journal tries to retire a current file."},
    {"RetiresAnUnsignedFile", [](auto& c) { c.WriteJournal(c.head + "delete\t1\tscreenshots/mine.png\n"); },
     L"The rollback journal contains an unsigned file."},
    {"PreviousReleaseUnproven",
     [](auto& c) { WriteTestFile(c.Previous(L"old-install\\TalvexUpdateState.dat"), "forged\n"); },
     L"The rollback cannot prove a retired managed file."},
    {"FilesAreAJunction", [](auto& c) { LinkAway(c, L"files"); },
     L"An update path contains a reparse point."},
    {"RecoveryIsAJunction", [](auto& c) { LinkAway(c, L"recovery"); },
     L"An update path contains a reparse point."},
    {"OldInstallIsAJunction", [](auto& c) { LinkAway(c, L"old-install"); },
     L"An update path contains a reparse point."},
    {"CopyFolderIsAJunction", [](auto& c) { LinkAway(c, L"files\\Data"); },
     L"An update path contains a reparse point."},
    {"TargetFolderIsAJunction",
     [](auto& c) {
       MoveFileW(c.At(L"Data").c_str(), (c.scratch / L"elsewhere").c_str());
       MakeJunction(c.At(L"Data"), c.scratch / L"elsewhere");
     },
     L"An update path contains a reparse point."},
};

class RollbackRefusals : public testing::TestWithParam<RefusalCase> {};

TEST_P(RollbackRefusals, ChangeNothing) {
  UpdatedClient client;
  GetParam().arrange(client);
  const Tree before = client.AllFiles();
  const HelperResult result = client.Rollback();
  EXPECT_EQ(result.exit_code, 1u);
  EXPECT_TRUE(result.message.starts_with(kNotRestored + GetParam().message)) << WideToUtf8(result.message);
  EXPECT_EQ(TreeDifference(client.AllFiles(), before), "");
  EXPECT_EQ(WaitForSingleObject(client.lock.Get(), 0), WAIT_OBJECT_0);
}

INSTANTIATE_TEST_SUITE_P(Table, RollbackRefusals, testing::ValuesIn(kRefusals),
                         [](const auto& row) { return std::string(row.param.name); });

// What cannot be put back does not keep the rest from being restored, and the copies stay for another try.
const RefusalCase kIncomplete[] = {
    {"CopyAndFileMissing",
     [](auto& c) {
       DeleteFileW(c.Previous(L"files\\Data\\a.bin").c_str());
       DeleteFileW(c.At(L"Data\\a.bin").c_str());
     },
     L"A required rollback copy is missing."},
    {"TargetIsADirectory",
     [](auto& c) {
       DeleteFileW(c.At(L"Data\\a.bin").c_str());
       MakeTestDirectory(c.At(L"Data\\a.bin"));
     },
     L"An updater rollback target is not a regular file."},
    {"TargetHasASecondLink",
     [](auto& c) { CreateHardLinkW((c.scratch / L"link").c_str(), c.At(L"Data\\a.bin").c_str(), nullptr); },
     L"An updater rollback target has unsafe file links."},
    {"TargetIsInUse",
     [](auto& c) {
       c.stray_event = OwnedHandle(CreateFileW(c.At(L"Data\\a.bin").c_str(), GENERIC_READ, FILE_SHARE_READ,
                                               nullptr, OPEN_EXISTING, 0, nullptr));
     },
     L"Could not remove a file during updater rollback."},
    {"CopyHasASecondLink",
     [](auto& c) {
       CreateHardLinkW((c.scratch / L"link").c_str(), c.Previous(L"files\\Data\\a.bin").c_str(), nullptr);
     },
     L"An updater recovery source is not a regular file."},
};

class IncompleteRollbacks : public testing::TestWithParam<RefusalCase> {};

TEST_P(IncompleteRollbacks, RestoreTheRestAndKeepTheCopies) {
  UpdatedClient client;
  GetParam().arrange(client);
  const HelperResult result = client.Rollback();
  EXPECT_EQ(result.exit_code, 1u);
  EXPECT_EQ(result.message, kNotRestored + GetParam().message);
  EXPECT_EQ(ReadTestFile(client.At(L"Data\\deep\\er\\b.bin")), "b");
  EXPECT_EQ(ReadTestFile(client.At(L"old\\retired.bin")), "retired");
  EXPECT_EQ(ReadTestFile(client.At(L"TalvexUpdateState.dat")), client.before[L"TalvexUpdateState.dat"]);
  EXPECT_FALSE(MayExist(client.At(L"new\\folder\\c.bin")));
  EXPECT_FALSE(MayExist(client.At(L"TalvexUpdateFailure.dat")));
  EXPECT_EQ(ReadTestFile(client.Previous(L"files\\old\\retired.bin")), "retired");
  EXPECT_TRUE(MayExist(client.Previous(L"rollback.journal")));
}

INSTANTIATE_TEST_SUITE_P(Table, IncompleteRollbacks, testing::ValuesIn(kIncomplete),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(RollbackOperands, AreRefusedBeforeAnythingIsRead) {
  constexpr wchar_t kInvalid[] = L"The rollback helper received invalid transaction data.";
  UpdatedClient client;
  const Tree before = client.AllFiles();
  const std::wstring good = HandleText(client.parent.Get());
  struct {
    std::wstring root, parent, lock;
    const wchar_t* message;
  } const cases[] = {
      {L"", good, good, kInvalid},
      {client.root, L"0", good, kInvalid},
      {client.root, good, L"0", kInvalid},
      {client.root, L"-5", good, kInvalid},
      {client.root, good, L" 5", kInvalid},
      {client.root, L"0x10", good, kInvalid},
      {client.root, good, L"4294967296", kInvalid},
      {client.root, good, L"4026531840", L"The rollback ownership handles were lost."},
      {client.root, L"4026531840", good, L"The rollback ownership handles were lost."},
  };
  for (const auto& c : cases) {
    const HelperResult result = client.Run(L"--rollback-journal", {c.root, c.parent, c.lock});
    EXPECT_EQ(result.exit_code, 1u);
    EXPECT_EQ(result.message, c.message);
  }
  WaitForSingleObject(client.lock.Get(), 0);  // and a lock that stays taken
  EXPECT_EQ(client.Rollback().message, L"Talvex could not retain its rollback ownership lock.");
  EXPECT_TRUE(ReleaseMutex(client.lock.Get())) << "the helper released a lock that it did not own";
  EXPECT_EQ(TreeDifference(client.AllFiles(), before), "");
}

}  // namespace
}  // namespace talvex::test
