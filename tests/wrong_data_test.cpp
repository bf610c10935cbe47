// Whole updates and rollbacks inside this program on operands, data and directories that somebody has
// spoiled: nothing changes, or what can be restored is restored, and the message says what is wrong.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstddef>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "apply/apply_transaction.h"
#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "storage/client_root.h"
#include "tests/proof/small_client.h"
#include "tests/support/recording_display.h"

namespace talvex::test {
namespace {

const std::wstring kNotRestored = L"Talvex could not restore the previous client files.\n\n";
constexpr wchar_t kOutside[] = L"The update staging directory is outside this Talvex installation.";
constexpr wchar_t kReparsePoint[] = L"An update path contains a reparse point.";
constexpr wchar_t kUnprepared[] = L"The update helper could not prepare rollback recovery.";

const TestRelease kOld{
    "1.0",
    1,
    {{"TalvexUpdateHelper.exe", "the helper"}, {"Data/a.bin", "old a"}, {"old/retired.bin", "retired"}}};
const TestRelease kNew{
    "2.0", 2, {{"TalvexUpdateHelper.exe", "the helper"}, {"Data/a.bin", "new a"}, {"new/folder/c.bin", "c"}}};

// A client with the old release installed, and the new one staged.
class Client : public SmallClient {
 public:
  Client() : SmallClient(kOld, kNew) {
    WriteTestFile(At(L"screenshots\\mine.png"), "not managed");
    Stage();
  }

  void OfferInstead(const TestRelease& old, const TestRelease& next) {
    Offer(old, next);
    Stage();
  }
  [[nodiscard]] std::wstring At(std::wstring_view path) const { return JoinPath(root, path); }
  [[nodiscard]] std::wstring InStage(std::wstring_view path) const {
    return JoinPath(At(L".talvex-update\\" + Utf8ToWide(HexDigestOf(new_release.ManifestText()))), path);
  }
  [[nodiscard]] std::wstring InPrevious(std::wstring_view path) const {
    return JoinPath(At(L".talvex-update\\previous"), path);
  }
  // Everything below the root but folders: empty ones may stay when an update is refused.
  [[nodiscard]] Tree AllFiles() const {
    Tree tree = Read();
    std::erase_if(tree, [](const auto& item) { return item.first.back() == L'\\'; });
    return tree;
  }

  // Moves a folder away, and puts a junction to it in its place.
  void LinkAway(const std::wstring& folder) const {
    MakeTestDirectory(folder);
    MoveFileW(folder.c_str(), (scratch / L"elsewhere").c_str());
    MakeJunction(folder, scratch / L"elsewhere");
  }
  void GiveASecondName(const std::wstring& file) const {
    CreateHardLinkW((scratch / L"link").c_str(), file.c_str(), nullptr);
  }
  // Writes `after` where the journal says `before`.
  void EditJournal(const std::string& before, const std::string& after) const {
    std::string text = ReadTestFile(At(kJournal));
    WriteTestFile(At(kJournal), text.replace(text.find(before), before.size(), after));
  }
};

TestRelease Without(TestRelease release, const char* path) {
  release.files.erase(path);
  return release;
}

struct Case {
  const char* name;
  void (*spoil)(Client& client);
  std::wstring message;
};

const Case kUpdateCases[] = {
    {"PreviousIsAJunction", [](Client& c) { c.LinkAway(c.InPrevious(L"")); }, kOutside},
    {"SignatureOfAnotherText", [](Client& c) { WriteTestFile(c.InStage(L"manifest.sig"), SignWithKey("x")); },
     L"The update manifest signature is invalid."},
    {"SignedButNotTheNamedManifest",
     [](Client& c) {
       WriteTestFile(c.InStage(L"manifest.txt"), kOld.ManifestText());
       WriteTestFile(c.InStage(L"manifest.sig"), kOld.Signature());
     },
     L"The signed update transaction is invalid."},
    {"OlderRelease",
     [](Client& c) {
       InstallTestRelease({"3.0", 3, kOld.files}, c.root);
     },
     L"The update server offered an older release. The update was rejected."},
    {"ChangedPlan", [](Client& c) { WriteTestFile(c.InStage(L"apply.plan"), "changed\n"); },
     L"The update apply plan failed verification."},
    {"StagedFileChanged", [](Client& c) { WriteTestFile(c.InStage(L"files\\new\\folder\\c.bin"), "C"); },
     L"A staged update file failed verification."},
    {"StagedFileLonger", [](Client& c) { WriteTestFile(c.InStage(L"files\\new\\folder\\c.bin"), "cc"); },
     L"The update target is too large or is not a regular file."},
    {"StagedFolderIsAJunction", [](Client& c) { c.LinkAway(c.InStage(L"files\\new")); }, kReparsePoint},
    {"TargetFolderIsAJunction", [](Client& c) { c.LinkAway(c.At(L"Data")); }, kReparsePoint},
    {"RetiredFolderIsAJunction", [](Client& c) { c.LinkAway(c.At(L"old")); }, kReparsePoint},
    {"TargetIsADirectory", [](Client& c) { MakeTestDirectory(c.At(L"new\\folder\\c.bin")); },
     L"An update target is not a regular file."},
    {"TargetHasASecondName", [](Client& c) { c.GiveASecondName(c.At(L"Data\\a.bin")); },
     L"An update target has unsafe file links."},
    {"CacheIsAFile",
     [](Client& c) {
       RemoveTestTree(c.At(L".talvex-update-cache"));
       WriteTestFile(c.At(L".talvex-update-cache"), "");
       c.OfferInstead(Without(kOld, "old/retired.bin"), kNew);  // no removal could be proven
     },
     L"The verified update cache directory is unsafe."},
    {"OtherHelper", [](Client& c) { WriteTestFile(c.settings.program, "The helper"); }, kUnprepared},
    {"ReleaseWithoutHelper", [](Client& c) { c.OfferInstead(kOld, Without(kNew, "TalvexUpdateHelper.exe")); },
     kUnprepared},
};

const Case kRollbackCases[] = {
    {"JournalOfAnotherRelease",
     [](Client& c) { c.EditJournal(HexDigestOf(kNew.ManifestText()), std::string(64, '0')); },
     L"The rollback recovery manifest is invalid."},
    {"ForgedManifest",
     [](Client& c) { WriteTestFile(c.InPrevious(L"recovery\\new-manifest.sig"), SignWithKey("x")); },
     L"The update manifest signature is invalid."},
    {"FileInOtherLetters", [](Client& c) { c.EditJournal("Data/a.bin", "data/a.bin"); },
     L"The rollback journal contains an unsigned file."},
    {"RetiresACurrentFile", [](Client& c) { c.EditJournal("old/retired.bin", "TalvexUpdateHelper.exe"); },
     L"The rollback journal tries to retire a current file."},
    {"PreviousReleaseUnproven",
     [](Client& c) { WriteTestFile(c.InPrevious(L"old-install\\TalvexUpdateState.dat"), "forged\n"); },
     L"The rollback cannot prove a retired managed file."},
    {"RecoveryIsAJunction", [](Client& c) { c.LinkAway(c.InPrevious(L"recovery")); }, kReparsePoint},
    {"OldInstallIsAJunction", [](Client& c) { c.LinkAway(c.InPrevious(L"old-install")); }, kReparsePoint},
    {"FilesAreAJunction", [](Client& c) { c.LinkAway(c.InPrevious(L"files")); }, kReparsePoint},
    {"CopyFolderIsAJunction", [](Client& c) { c.LinkAway(c.InPrevious(L"files\\Data")); }, kReparsePoint},
    {"TargetFolderIsAJunction", [](Client& c) { c.LinkAway(c.At(L"Data")); }, kReparsePoint},
};

void ExpectNoChange(std::span<const Case> cases, bool is_rollback) {
  for (const Case& wrong : cases) {
    Client client;
    if (is_rollback) {
      ASSERT_EQ(client.Apply().exit_code, 0);
    }
    wrong.spoil(client);
    const Tree before = client.AllFiles();
    const RunRecord record = is_rollback ? client.Rollback() : client.Apply();
    EXPECT_EQ(record.exit_code, 1) << wrong.name;
    EXPECT_EQ(record.message, (is_rollback ? kNotRestored : L"") + wrong.message) << wrong.name;
    EXPECT_EQ(TreeDifference(client.AllFiles(), before), "") << wrong.name;
  }
}

TEST(Update, ChangesNothingOnWrongData) {
  ExpectNoChange(kUpdateCases, false);
}

TEST(Rollback, ChangesNothingOnWrongData) {
  ExpectNoChange(kRollbackCases, true);
}

// The highest value that a handle can have is this process itself.
TEST(Operands, AreRefusedBeforeAnythingIsRead) {
  Client client;
  MakeJunction(client.root + L"-link", client.root);
  const Tree before = client.AllFiles();
  constexpr wchar_t kInvalid[] = L"The update helper received invalid transaction data.";
  constexpr wchar_t kLost[] = L"The update ownership lock was lost.";
  constexpr wchar_t kInvalidRollback[] = L"The rollback helper received invalid transaction data.";
  constexpr wchar_t kLostRollback[] = L"The rollback ownership handles were lost.";
  constexpr wchar_t kUnknown[] = L"4026531840";
  constexpr wchar_t kHighest[] = L"4294967295";
  constexpr wchar_t kTooHigh[] = L"4294967296";
  const struct {
    bool is_rollback;
    std::map<std::size_t, std::wstring> wrong_arguments;
    std::wstring message;
  } cases[] = {
      {false, {{2, client.At(L"absent")}}, kInvalid},
      {false, {{3, client.At(L"absent")}}, kInvalid},
      {false, {{3, client.root + L"-link"}}, kInvalid},
      {false, {{3, client.root}}, kOutside},
      {false, {{4, L"-5"}}, kInvalid},
      {false, {{4, kTooHigh}}, kInvalid},
      {false, {{5, std::wstring(64, L'A')}}, kInvalid},
      {false, {{6, std::wstring(63, L'a')}}, kInvalid},
      {false, {{7, L"12a"}}, kInvalid},
      {false, {{7, kTooHigh}}, kInvalid},
      {false, {{3, client.root}, {4, L"0"}}, kLost},
      {false, {{3, client.root}, {7, L"0"}}, kLost},
      {false, {{4, kUnknown}, {7, kHighest}}, kLost},
      {false, {{4, kHighest}, {7, kUnknown}}, kLost},
      {false, {{4, kHighest}, {7, kHighest}}, kLost},
      {true, {{2, L""}}, kInvalidRollback},
      {true, {{3, L"0"}}, kInvalidRollback},
      {true, {{4, L"0"}}, kInvalidRollback},
      {true, {{4, kTooHigh}}, kInvalidRollback},
      {true, {{3, kUnknown}, {4, kHighest}}, kLostRollback},
      {true, {{3, kHighest}, {4, kUnknown}}, kLostRollback},
      {true, {{3, kHighest}, {4, kHighest}}, kLostRollback},
  };
  for (const auto& c : cases) {
    client.wrong_arguments = c.wrong_arguments;
    EXPECT_EQ((c.is_rollback ? client.Rollback() : client.Apply()).message, c.message)
        << testing::PrintToString(c.wrong_arguments);
  }
  EXPECT_EQ(TreeDifference(client.AllFiles(), before), "");
}

TEST(Update, PutsEveryByteBackWhenItFails) {
  Client client;
  const Tree before = client.AllFiles();
  const OwnedHandle holder(CreateFileW(client.At(L"old\\retired.bin").c_str(), GENERIC_READ, FILE_SHARE_READ,
                                       nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_EQ(client.Apply().message,
            L"Could not create a rollback copy for a retired update file.\n\n"
            L"Your existing files were restored.");
  EXPECT_EQ(TreeDifference(client.AllFiles(), before), "");
}

TEST(Rollback, PutsStateAndCacheBackAsTheyWere) {
  constexpr const wchar_t* kRecords[] = {L"TalvexUpdateState.dat", L".talvex-update-cache\\manifest.txt",
                                         L".talvex-update-cache\\manifest.sig"};
  for (int missing = 0; missing < 8; ++missing) {
    Client client;
    client.OfferInstead(Without(kOld, "old/retired.bin"), kNew);  // no removal could be proven
    for (int i = 0; i < 3; ++i) {
      if ((missing >> i & 1) != 0) {
        DeleteFileW(client.At(kRecords[i]).c_str());
      }
    }
    const Tree expected = client.Marked(SmallClient::ClientFiles(client.Read()));
    ASSERT_EQ(client.Apply().exit_code, 0) << missing;
    EXPECT_EQ(client.Rollback().exit_code, 0) << missing;
    EXPECT_EQ(TreeDifference(client.AllFiles(), expected), "") << missing;
  }
}

// The copies and the journal stay for another try.
TEST(Rollback, RestoresTheRestWhenAFileCannotBe) {
  Client client;
  ASSERT_EQ(client.Apply().exit_code, 0);
  client.GiveASecondName(client.At(L"new\\folder\\c.bin"));
  Tree expected = client.old_files;
  expected[L"new\\folder\\c.bin"] = "c";
  expected[L"screenshots\\mine.png"] = "not managed";
  EXPECT_EQ(client.Rollback().message, kNotRestored + L"An updater rollback target has unsafe file links.");
  EXPECT_EQ(TreeDifference(SmallClient::ClientFiles(client.Read()), expected), "");
  EXPECT_EQ(ReadTestFile(client.InPrevious(L"files\\Data\\a.bin")), "old a");
  EXPECT_TRUE(MayExist(client.At(kJournal)));
}

// The window goes before a failure is reported: the two would cover each other.
TEST(TransactionDisplay, FollowsTheStepsToTheirEnd) {
  Client client;
  const auto shown = [&] {
    RecordingDisplay display;
    static_cast<void>(client.Apply({}, [&](int count, const wchar_t* const* arguments) {
      return RunApplyTransaction(count, arguments, display);
    }));
    return display.shown;
  };
  WriteTestFile(client.InStage(L"files\\Data\\a.bin"), "bad a");
  EXPECT_EQ(shown(),
            L"start Verifying update...\nstop\nfailure A staged update file failed verification.\nstop\n");
  client.Stage();
  EXPECT_EQ(shown(),
            L"start Verifying update...\n5 of 6\n6 of 6\n"
            L"text Applying update...\n0 of 3\n1 of 3\n2 of 3\n3 of 3\n"
            L"text Verifying installed files...\n"
            L"0 of 16\n5 of 16\n5 of 16\n15 of 16\n15 of 16\n16 of 16\n16 of 16\n"
            L"text Update completed. Starting Talvex...\n1 of 1\nstop\nstop\n");
}

}  // namespace
}  // namespace talvex::test
