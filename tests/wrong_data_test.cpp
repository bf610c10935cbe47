// Whole updates and rollbacks inside this program on operands, data and directories that somebody has
// spoiled: nothing changes, or what can be restored is restored, and the message says what is wrong.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "app/apply_mode.h"
#include "app/rollback_mode.h"
#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "storage/client_root.h"
#include "tests/support/helper_run.h"
#include "tests/support/recording_display.h"
#include "tests/support/small_client.h"

namespace talvex::test {
namespace {

const std::wstring kNotRestored = L"Talvex could not restore the previous client files.\n\n";
constexpr wchar_t kOutside[] = L"The update staging directory is outside this Talvex installation.";
constexpr wchar_t kReparsePoint[] = L"An update path contains a reparse point.";
constexpr wchar_t kUnprepared[] = L"The update helper could not prepare rollback recovery.";
constexpr wchar_t kUnsigned[] = L"The rollback journal contains an unsigned file.";

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
    {"WorkDirectoryIsAJunction", [](Client& c) { c.LinkAway(c.At(L".talvex-update")); }, kOutside},
    {"PreviousIsAJunction", [](Client& c) { c.LinkAway(c.InPrevious(L"")); }, kOutside},
    {"SignatureOfAnotherText",
     [](Client& c) { WriteTestFile(c.InStage(L"manifest.sig"), SignWithDevelopmentKey("x")); },
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
    {"TargetIsADirectory", [](Client& c) { MakeTestDirectory(c.At(L"new\\folder\\c.bin")); },
     L"An update target is not a regular file."},
    {"TargetHasASecondName", [](Client& c) { c.GiveASecondName(c.At(L"Data\\a.bin")); },
     L"An update target has unsafe file links."},
    {"RetiredFileEdited", [](Client& c) { WriteTestFile(c.At(L"old\\retired.bin"), "RETIRED"); },
     L"A retired managed file changed locally and was not deleted."},
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
     [](Client& c) {
       WriteTestFile(c.InPrevious(L"recovery\\new-manifest.sig"), SignWithDevelopmentKey("x"));
     },
     L"The update manifest signature is invalid."},
    {"UnsignedFile", [](Client& c) { c.EditJournal("new/folder/c.bin", "screenshots/mine.png"); }, kUnsigned},
    {"FileInOtherLetters", [](Client& c) { c.EditJournal("Data/a.bin", "data/a.bin"); }, kUnsigned},
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

void ExpectNoChange(const Case& wrong, Client& client, RunRecord (SmallClient::*run)(const FaultPoint&),
                    const std::wstring& message) {
  wrong.spoil(client);
  const Tree before = client.AllFiles();
  const RunRecord record = (client.*run)({});
  EXPECT_EQ(record.exit_code, 1) << wrong.name;
  EXPECT_EQ(record.message, message) << wrong.name;
  EXPECT_EQ(TreeDifference(client.AllFiles(), before), "") << wrong.name;
}

TEST(Update, ChangesNothingOnWrongData) {
  for (const Case& wrong : kUpdateCases) {
    Client client;
    ExpectNoChange(wrong, client, &SmallClient::Apply, wrong.message);
  }
}

TEST(Rollback, ChangesNothingOnWrongData) {
  for (const Case& wrong : kRollbackCases) {
    Client client;
    ASSERT_EQ(client.Apply().exit_code, 0);
    ExpectNoChange(wrong, client, &SmallClient::Rollback, kNotRestored + wrong.message);
  }
}

// The message of a mode for a client that has exited and a free lock, but for the `changed` operands, by
// their place.
std::wstring MessageFor(int (*mode)(int, const wchar_t* const*), const std::wstring& root,
                        const std::map<std::size_t, std::wstring>& changed) {
  RunSettings settings;
  settings.handed_over = {MakeInheritableEvent(true).Release(), MakeInheritableMutex().Release()};
  const std::wstring parent = HandleText(settings.handed_over[0]);
  const std::wstring lock = HandleText(settings.handed_over[1]);
  const std::wstring digest(64, L'a');
  std::vector<std::wstring> operands{root, parent, lock};
  if (mode == RunApplyMode) {
    operands = {root, root + L"\\stage", parent, digest, digest, lock};
  }
  for (const auto& [place, text] : changed) {
    operands[place] = text;
  }
  std::vector<const wchar_t*> arguments{L"helper", L"--mode"};
  for (const std::wstring& operand : operands) {
    arguments.push_back(operand.c_str());
  }
  const auto run = [&] { return mode(static_cast<int>(arguments.size()), arguments.data()); };
  return RunWithFault(run, {}, settings).message;
}

// The highest value that a handle can have is this process itself.
TEST(Operands, AreRefusedBeforeAnythingIsRead) {
  const ScratchDirectory root;
  MakeTestDirectory(root / L"stage");
  MakeJunction(root / L"link", root / L"stage");
  const wchar_t* const kInvalid = L"The update helper received invalid transaction data.";
  const wchar_t* const kLost = L"The update ownership lock was lost.";
  const wchar_t* const kInvalidRollback = L"The rollback helper received invalid transaction data.";
  const wchar_t* const kLostRollback = L"The rollback ownership handles were lost.";
  const wchar_t* const kUnknown = L"4026531840";
  const wchar_t* const kHighest = L"4294967295";
  const wchar_t* const kTooHigh = L"4294967296";
  const struct {
    int (*mode)(int, const wchar_t* const*);
    std::map<std::size_t, std::wstring> changed;
    const wchar_t* message;
  } cases[] = {
      {RunApplyMode, {}, kOutside},
      {RunApplyMode, {{0, root / L"absent"}}, kInvalid},
      {RunApplyMode, {{1, root / L"absent"}}, kInvalid},
      {RunApplyMode, {{1, root / L"link"}}, kInvalid},
      {RunApplyMode, {{2, L"-5"}}, kInvalid},
      {RunApplyMode, {{2, kTooHigh}}, kInvalid},
      {RunApplyMode, {{3, std::wstring(64, L'A')}}, kInvalid},
      {RunApplyMode, {{4, std::wstring(63, L'a')}}, kInvalid},
      {RunApplyMode, {{5, L"12a"}}, kInvalid},
      {RunApplyMode, {{5, kTooHigh}}, kInvalid},
      {RunApplyMode, {{2, L"0"}}, kLost},
      {RunApplyMode, {{5, L"0"}}, kLost},
      {RunApplyMode, {{2, kUnknown}, {5, kHighest}}, kLost},
      {RunApplyMode, {{2, kHighest}, {5, kUnknown}}, kLost},
      {RunRollbackMode, {{0, L""}}, kInvalidRollback},
      {RunRollbackMode, {{1, L"0"}}, kInvalidRollback},
      {RunRollbackMode, {{2, L"0"}}, kInvalidRollback},
      {RunRollbackMode, {{2, L" 5"}}, kInvalidRollback},
      {RunRollbackMode, {{2, kTooHigh}}, kInvalidRollback},
      {RunRollbackMode, {{1, kUnknown}, {2, kHighest}}, kLostRollback},
      {RunRollbackMode, {{1, kHighest}, {2, kUnknown}}, kLostRollback},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(MessageFor(c.mode, root.Path(), c.changed), c.message) << testing::PrintToString(c.changed);
  }
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
    for (int i = 0; i < 3; ++i) {
      if ((missing >> i & 1) != 0) {
        DeleteFileW(client.At(kRecords[i]).c_str());
        client.OfferInstead(Without(kOld, "old/retired.bin"), kNew);  // no removal could be proven
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
  const TestRelease one{"1", 1, {{"TalvexUpdateHelper.exe", "the helper"}, {"a", "old"}}};
  const TestRelease two{"2", 2, {{"TalvexUpdateHelper.exe", "the helper"}, {"a", "new"}, {"b", "new too"}}};
  SmallClient client(one, two);
  client.Stage();
  RecordingDisplay done;
  EXPECT_EQ(client.ApplyShownOn(done).exit_code, 0);
  EXPECT_EQ(
      done.shown,
      L"start Verifying update...\n3 of 10\n10 of 10\n"
      L"text Applying update...\n0 of 2\n1 of 2\n2 of 2\n"
      L"text Verifying installed files...\n0 of 20\n10 of 20\n10 of 20\n13 of 20\n13 of 20\n20 of 20\n20 of 20\n"
      L"text Update completed. Starting Talvex...\n1 of 1\nstop\nstop\n");
  client.Stage();
  const std::wstring digest = Utf8ToWide(HexDigestOf(two.ManifestText()));
  WriteTestFile(client.root + L"\\.talvex-update\\" + digest + L"\\files\\a", "bad");
  RecordingDisplay failed;
  EXPECT_EQ(client.ApplyShownOn(failed).exit_code, 1);
  EXPECT_EQ(failed.shown,
            L"start Verifying update...\nstop\nfailure A staged update file failed verification.\nstop\n");
}

}  // namespace
}  // namespace talvex::test
