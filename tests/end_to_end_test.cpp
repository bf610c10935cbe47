// The real helper, started with real inherited handles, on real directories.

#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <thread>
#include <vector>

#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "storage/client_root.h"
#include "tests/support/client_directory.h"

namespace talvex::test {
namespace {

std::string WaitForReport(const std::wstring& path) {
  for (int i = 0; i < 500 && !MayExist(path); ++i) {
    Sleep(20);
  }
  return ReadTestFile(path);
}

// The lock is free again, and was released rather than left behind by a process that ended.
void ExpectReleased(const OwnedHandle& lock) {
  EXPECT_EQ(WaitForSingleObject(lock.Get(), 5'000), WAIT_OBJECT_0);
  ReleaseMutex(lock.Get());
}

std::string StateText(const TestRelease& release) {
  return "TALVEX-UPDATE-STATE-V1\nsequence\t" + std::to_string(release.sequence) + "\nrelease\t" +
         release.name + "\nmanifest-sha256\t" + HexDigestOf(release.ManifestText()) + "\n";
}

void ExpectInstalled(const ClientDirectory& client, const TestRelease& release) {
  EXPECT_EQ(TreeDifference(client.ClientFiles(), ClientDirectory::FilesOf(release)), "");
  EXPECT_EQ(ReadTestFile(client.At(L"TalvexUpdateState.dat")), StateText(release));
  EXPECT_EQ(ReadTestFile(client.At(L".talvex-update-cache\\manifest.txt")), release.ManifestText());
  EXPECT_EQ(ReadTestFile(client.At(L".talvex-update-cache\\manifest.sig")), release.Signature());
}

// Others may read the file meanwhile, but nobody can replace, move or delete it.
OwnedHandle HoldAgainstChange(const std::wstring& path) {
  OwnedHandle file(
      CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_TRUE(file.IsValid());
  return file;
}

TEST(Update, ReplacesAddsAndRetiresAndRestartsTheClient) {
  ClientDirectory client;
  client.Prepare();
  WriteTestFile(client.At(L".talvex-update\\stale\\left.tmp"), "by an earlier run");
  WriteTestFile(client.At(L".talvex-update\\previous\\files\\stale"), "by an earlier update");
  const HelperResult result = client.Apply();
  EXPECT_EQ(result.exit_code, 0u);
  EXPECT_EQ(result.message, L"");
  EXPECT_TRUE(result.showed_window);
  const std::string report = WaitForReport(client.report);
  ExpectInstalled(client, client.new_release);
  ExpectReleased(client.lock);

  const std::string root = WideToUtf8(client.root);
  EXPECT_EQ(report, "manifest=" + HexDigestOf(client.new_release.ManifestText()) +
                        "\nlock=0\nfolder=" + root + "\ncommand=\"" + root + "\\Talvex.exe\"\n");
  EXPECT_EQ(WaitForSingleObject(client.stray_event.Get(), 0), WAIT_TIMEOUT) << "inherited by the client";

  // What undoes the update, and nothing else, is left in the work directory.
  Tree work;
  for (const auto& [path, contents] : client.AllFiles()) {
    if (path.starts_with(L".talvex-update\\")) {
      work[path.substr(15)] = contents;
    }
  }
  const std::string journal =
      "TALVEX-ROLLBACK-V1\nmanifest-sha256\t" + HexDigestOf(client.new_release.ManifestText()) +
      "\nprevious-state\t1\nprevious-cache-manifest\t1\nprevious-cache-signature\t1\n"
      "file\t1\tData/a.bin\nfile\t1\tTalvexUpdateHelper.exe\nfile\t0\tnew/folder/c.bin\n"
      "file\t1\tData/deep/er/b.bin\ndelete\t1\told/retired.bin\n";
  const TestRelease& old = client.old_release;
  EXPECT_EQ(TreeDifference(
                work, Tree{{L"previous\\files\\Data\\a.bin", old.files.at("Data/a.bin")},
                           {L"previous\\files\\Data\\deep\\er\\b.bin", "b"},
                           {L"previous\\files\\TalvexUpdateHelper.exe", "the helper of release 1.0"},
                           {L"previous\\files\\old\\retired.bin", "retired"},
                           {L"previous\\old-install\\.talvex-update-cache\\manifest.sig", old.Signature()},
                           {L"previous\\old-install\\.talvex-update-cache\\manifest.txt", old.ManifestText()},
                           {L"previous\\old-install\\TalvexUpdateState.dat", StateText(old)},
                           {L"previous\\recovery\\new-manifest.sig", client.new_release.Signature()},
                           {L"previous\\recovery\\new-manifest.txt", client.new_release.ManifestText()},
                           {L"previous\\recovery\\rollback-helper.exe", ReadTestFile(client.helper)},
                           {L"previous\\rollback.journal", journal}}),
            "");
}

TEST(Update, InstallsAFirstReleaseUnderAnAbandonedLockIntoFoldersInAnyCase) {
  ClientDirectory client;
  client.plan.install = {"Data/a.bin", "Data/deep/er/b.bin", "Talvex.exe", "TalvexUpdateHelper.exe",
                         "keep.txt",   "new/folder/c.bin"};
  client.plan.retire.clear();
  WriteTestFile(client.At(L"Talvex.exe"), "whatever the player had");
  WriteTestFile(client.At(L"screenshots\\mine.png"), "not managed");
  client.stage = StageTestRelease(client.new_release, client.plan, client.root);
  std::thread([&] { WaitForSingleObject(client.lock.Get(), 0); }).join();  // ends while it owns the lock
  std::vector<std::wstring> operands = client.ApplyOperands();
  operands[0] += L"/";
  for (wchar_t& unit : operands[1]) {
    unit = static_cast<wchar_t>(towupper(unit));
  }
  EXPECT_EQ(client.Run(L"--APPLY-PLAN", operands).exit_code, 0u);
  EXPECT_NE(WaitForReport(client.report).find("lock=0\n"), std::string::npos);
  ExpectInstalled(client, client.new_release);
}

TEST(Update, WaitsForTheClientToExitBeforeAnythingChanges) {
  ClientDirectory client;
  client.Prepare();
  client.parent = MakeInheritableEvent(false);
  const Tree before = client.AllFiles();
  ULONGLONG started = 0;
  const HelperResult result = client.Run(L"--apply-plan", client.ApplyOperands(), [&](DWORD) {
    started = started == 0 ? GetTickCount64() : started;
    if (GetTickCount64() - started > 1'000 && WaitForSingleObject(client.parent.Get(), 0) == WAIT_TIMEOUT) {
      EXPECT_EQ(TreeDifference(client.AllFiles(), before), "");
      SetEvent(client.parent.Get());
    }
  });
  EXPECT_EQ(result.exit_code, 0u);
  WaitForReport(client.report);
  ExpectInstalled(client, client.new_release);
}

class HeldFiles : public testing::TestWithParam<const wchar_t*> {};

TEST_P(HeldFiles, AreWaitedForASecond) {
  ClientDirectory client;
  client.Prepare();
  OwnedHandle holder = HoldAgainstChange(client.At(GetParam()));
  const std::wstring journal = client.At(L".talvex-update\\previous\\rollback.journal");
  ULONGLONG changing_since = 0;
  const HelperResult result = client.Run(L"--apply-plan", client.ApplyOperands(), [&](DWORD) {
    if (changing_since == 0 && MayExist(journal)) {
      changing_since = GetTickCount64();
    } else if (changing_since != 0 && GetTickCount64() - changing_since > 1'000) {
      holder.Reset();
    }
  });
  EXPECT_EQ(result.exit_code, 0u) << WideToUtf8(result.message);
  WaitForReport(client.report);
  ExpectInstalled(client, client.new_release);
}

INSTANTIATE_TEST_SUITE_P(Table, HeldFiles,
                         testing::Values(L"Data\\deep\\er\\b.bin", L"TalvexUpdateState.dat",
                                         L".talvex-update-cache\\manifest.txt",
                                         L".talvex-update-cache\\manifest.sig"));

// Somebody holds a part of what the last update has kept. Nothing of it may go before its journal: half of it
// would let a rollback mix two releases.
TEST(Update, ClearsTheJournalOfTheLastOneFirst) {
  for (const std::wstring held : {L"files\\TalvexUpdateHelper.exe", L"rollback.journal"}) {
    ClientDirectory client;
    client.Prepare();
    ASSERT_EQ(client.Apply().exit_code, 0u);
    WaitForReport(client.report);
    client.new_release.name = "3.0";
    client.new_release.sequence = 3;
    client.new_release.files["Data/a.bin"] = "third";
    client.plan = {{"Data/a.bin"}, {}};
    client.stage = StageTestRelease(client.new_release, client.plan, client.root);
    const Tree before = client.ClientFiles();
    OwnedHandle holder = HoldAgainstChange(client.At(L".talvex-update\\previous\\" + held));
    EXPECT_EQ(client.Apply().message, L"Could not remove old updater work data.");
    EXPECT_EQ(TreeDifference(client.ClientFiles(), before), "");
    holder.Reset();
    if (held == L"rollback.journal") {  // every copy is still there
      EXPECT_EQ(client.Rollback().exit_code, 0u);
      EXPECT_EQ(TreeDifference(client.ClientFiles(), ClientDirectory::FilesOf(client.old_release)), "");
      continue;
    }
    EXPECT_EQ(client.Rollback().exit_code, 1u);
    EXPECT_EQ(TreeDifference(client.ClientFiles(), before), "");
    EXPECT_EQ(client.Apply().exit_code, 0u);
    WaitForReport(client.report);
    ExpectInstalled(client, client.new_release);
  }
}

TEST(Update, StaysInstalledWhenTheClientCannotBeStarted) {
  ClientDirectory client;
  client.new_release.files.erase("Talvex.exe");
  client.plan.retire.emplace_back("Talvex.exe");
  client.Prepare();
  const HelperResult result = client.Apply();
  EXPECT_EQ(result.exit_code, 1u);
  EXPECT_EQ(result.message, L"The update finished, but Talvex could not restart with its health lock.");
  ExpectInstalled(client, client.new_release);
  ExpectReleased(client.lock);
}

struct RefusalCase {
  const char* name;
  void (*arrange)(ClientDirectory& client, std::vector<std::wstring>& operands);
  const wchar_t* message;
};

constexpr wchar_t kInvalidData[] = L"The update helper received invalid transaction data.";
constexpr wchar_t kLockLost[] = L"The update ownership lock was lost.";
constexpr wchar_t kOutside[] = L"The update staging directory is outside this Talvex installation.";
constexpr wchar_t kNotRegular[] = L"The update target is too large or is not a regular file.";

void Restage(ClientDirectory& client, std::vector<std::wstring>& operands) {
  RemoveTestTree(client.stage);
  client.stage = StageTestRelease(client.new_release, client.plan, client.root);
  operands = client.ApplyOperands();
}

// Whatever is wrong with an update, nothing of the client changes.
const RefusalCase kRefusals[] = {
    {"EmptyRoot", [](auto&, auto& o) { o[0] = L""; }, kInvalidData},
    {"MissingRoot", [](auto&, auto& o) { o[0] += L"x"; }, kInvalidData},
    {"MissingStage", [](auto&, auto& o) { o[1] += L"x"; }, kInvalidData},
    {"SignedHandle", [](auto&, auto& o) { o[2] = L"-5"; }, kInvalidData},
    {"HexadecimalHandle", [](auto&, auto& o) { o[2] = L"0x10"; }, kInvalidData},
    {"LockWithLetters", [](auto&, auto& o) { o[5] = L"12a"; }, kInvalidData},
    {"ParentAbove32Bits", [](auto&, auto& o) { o[2] = L"4294967296"; }, kInvalidData},
    {"LockAbove32Bits", [](auto&, auto& o) { o[5] = L"4294967296"; }, kInvalidData},
    {"UppercaseDigest", [](auto&, auto& o) { o[3][0] = L'A'; }, kInvalidData},
    {"ShortPlanDigest", [](auto&, auto& o) { o[4].pop_back(); }, kInvalidData},
    {"StageIsAJunction",
     [](auto& c, auto&) {
       MoveFileW(c.stage.c_str(), (c.scratch / L"elsewhere").c_str());
       MakeJunction(c.stage, c.scratch / L"elsewhere");
     },
     kInvalidData},
    {"ZeroParent", [](auto&, auto& o) { o[2] = L"0"; }, kLockLost},
    {"ZeroLock", [](auto&, auto& o) { o[5] = L"0"; }, kLockLost},
    {"UnknownLock", [](auto&, auto& o) { o[5] = L"4026531840"; }, kLockLost},
    {"StageElsewhere", [](auto& c, auto& o) { o[1] = c.At(L"screenshots"); }, kOutside},
    {"WorkDirectoryIsAJunction",
     [](auto& c, auto&) {
       MoveFileW(c.At(L".talvex-update").c_str(), (c.scratch / L"elsewhere").c_str());
       MakeJunction(c.At(L".talvex-update"), c.scratch / L"elsewhere");
     },
     kOutside},
    {"PreviousIsAJunction",
     [](auto& c, auto&) { MakeJunction(c.At(L".talvex-update\\previous"), c.scratch / L"helper"); },
     kOutside},
    {"SignatureOfAnotherText",
     [](auto& c, auto&) { WriteTestFile(c.stage + L"\\manifest.sig", SignWithDevelopmentKey("x")); },
     L"The update manifest signature is invalid."},
    {"SignedButNotTheNamedManifest",
     [](auto& c, auto&) {
       TestRelease other = c.new_release;
       other.name = "other";
       WriteTestFile(c.stage + L"\\manifest.txt", other.ManifestText());
       WriteTestFile(c.stage + L"\\manifest.sig", other.Signature());
     },
     L"The signed update transaction is invalid."},
    {"OlderRelease",
     [](auto& c, auto& o) {
       c.old_release.sequence = 3;
       InstallTestRelease(c.old_release, c.root);
       Restage(c, o);
     },
     L"The update server offered an older release. The update was rejected."},
    {"ChangedRelease",
     [](auto& c, auto& o) {
       c.old_release.sequence = 2;
       InstallTestRelease(c.old_release, c.root);
       Restage(c, o);
     },
     L"The update server changed a release without increasing its sequence."},
    {"ChangedPlan", [](auto& c, auto&) { WriteTestFile(c.stage + L"\\apply.plan", "changed\n"); },
     L"The update apply plan failed verification."},
    {"PlanOfUnsignedFile",
     [](auto& c, auto& o) {
       c.plan.retire.emplace_back("screenshots/mine.png");
       Restage(c, o);
     },
     L"The update apply plan contains a file outside the signed manifest."},
    {"StagedFileChanged",
     [](auto& c, auto&) { WriteTestFile(c.stage + L"\\files\\new\\folder\\c.bin", "C"); },
     L"A staged update file failed verification."},
    {"StagedFileShorter", [](auto& c, auto&) { WriteTestFile(c.stage + L"\\files\\new\\folder\\c.bin", ""); },
     L"A staged update file failed verification."},
    {"StagedFileLonger",
     [](auto& c, auto&) { WriteTestFile(c.stage + L"\\files\\new\\folder\\c.bin", "cc"); }, kNotRegular},
    {"StagedFileHasASecondLink",
     [](auto& c, auto&) {
       CreateHardLinkW((c.scratch / L"link").c_str(), (c.stage + L"\\files\\new\\folder\\c.bin").c_str(),
                       nullptr);
     },
     kNotRegular},
    {"StagedFolderIsAJunction",
     [](auto& c, auto&) {
       MoveFileW((c.stage + L"\\files\\new").c_str(), (c.scratch / L"elsewhere").c_str());
       MakeJunction(c.stage + L"\\files\\new", c.scratch / L"elsewhere");
     },
     L"An update path contains a reparse point."},
    {"StagedFilesMissing", [](auto& c, auto&) { RemoveTestTree(c.stage + L"\\files"); },
     L"The client directory is missing or is a reparse point."},
    {"TargetFolderIsAJunction",
     [](auto& c, auto&) {
       MoveFileW(c.At(L"Data").c_str(), (c.scratch / L"elsewhere").c_str());
       MakeJunction(c.At(L"Data"), c.scratch / L"elsewhere");
     },
     L"An update path contains a reparse point."},
    {"TargetIsADirectory", [](auto& c, auto&) { MakeTestDirectory(c.At(L"new\\folder\\c.bin")); },
     L"An update target is not a regular file."},
    {"TargetHasASecondLink",
     [](auto& c, auto&) {
       CreateHardLinkW((c.scratch / L"link").c_str(), c.At(L"Data\\deep\\er\\b.bin").c_str(), nullptr);
     },
     L"An update target has unsafe file links."},
    {"RetiredFileEdited", [](auto& c, auto&) { WriteTestFile(c.At(L"old\\retired.bin"), "RETIRED"); },
     L"A retired managed file changed locally and was not deleted."},
    {"RetiredFileGrown",
     [](auto& c, auto&) { WriteTestFile(c.At(L"old\\retired.bin"), "retired and grown"); },
     L"A retired managed file changed locally and was not deleted."},
    {"OtherHelper",
     [](auto& c, auto& o) {
       c.new_release.files["TalvexUpdateHelper.exe"].back() ^= 1;
       Restage(c, o);
     },
     L"The update helper could not prepare rollback recovery."},
    {"ReleaseWithoutHelper",
     [](auto& c, auto& o) {
       c.new_release.files.erase("TalvexUpdateHelper.exe");
       c.plan.install = {"Data/a.bin"};
       c.plan.retire = {"TalvexUpdateHelper.exe"};
       Restage(c, o);
     },
     L"The update helper could not prepare rollback recovery."},
};

class Refusals : public testing::TestWithParam<RefusalCase> {};

TEST_P(Refusals, LeaveTheClientUntouched) {
  ClientDirectory client;
  client.Prepare();
  std::vector<std::wstring> operands = client.ApplyOperands();
  GetParam().arrange(client, operands);
  const Tree before = client.AllFiles();
  const HelperResult result = client.Run(L"--apply-plan", operands);
  EXPECT_EQ(result.exit_code, 1u);
  EXPECT_EQ(result.message, GetParam().message);
  EXPECT_EQ(result.caption, L"Talvex Update");
  EXPECT_EQ(TreeDifference(client.AllFiles(), before), "");
  ExpectReleased(client.lock);
}

INSTANTIATE_TEST_SUITE_P(Table, Refusals, testing::ValuesIn(kRefusals),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Refusal, OfACacheThatIsAFile) {
  ClientDirectory client;
  client.Prepare();
  RemoveTestTree(client.At(L".talvex-update-cache"));
  WriteTestFile(client.At(L".talvex-update-cache"), "");
  client.plan.retire.clear();  // without a cache no removal could be proven
  client.stage = StageTestRelease(client.new_release, client.plan, client.root);
  const Tree before = client.AllFiles();
  EXPECT_EQ(client.Apply().message, L"The verified update cache directory is unsafe.");
  EXPECT_EQ(TreeDifference(client.AllFiles(), before), "");
}

// A handle that cannot be waited for stands for a client that does not exit: the wait fails at once.
TEST(Refusal, OfAClientThatDoesNotExit) {
  ClientDirectory client;
  client.Prepare();
  const Tree before = client.AllFiles();
  client.parent = MakeInheritable(
      CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY | SEC_RESERVE, 0, 4096, nullptr));
  ASSERT_TRUE(client.parent.IsValid());
  EXPECT_EQ(client.Apply().message, L"Talvex did not close in time for the update.");
  EXPECT_EQ(client.Rollback().message, L"Talvex did not close in time for rollback.");
  EXPECT_EQ(TreeDifference(client.AllFiles(), before), "");
}

TEST(Refusal, OfALockThatStaysTaken) {
  ClientDirectory client;
  client.Prepare();
  const Tree before = client.AllFiles();
  WaitForSingleObject(client.lock.Get(), 0);
  const HelperResult result = client.Apply();
  EXPECT_EQ(result.exit_code, 1u);
  EXPECT_EQ(result.message, L"Talvex could not retain its update ownership lock.");
  EXPECT_EQ(TreeDifference(client.AllFiles(), before), "");
  EXPECT_TRUE(ReleaseMutex(client.lock.Get())) << "the helper released a lock that it did not own";
}

struct FailureCase {
  const char* name;
  void (*arrange)(ClientDirectory& client, OwnedHandle& holder);
  const wchar_t* message;
};

const FailureCase kFailures[] = {
    {"UnchangedFileMissing", [](ClientDirectory& c, OwnedHandle&) { DeleteFileW(c.At(L"keep.txt").c_str()); },
     L"Could not open file for hashing: "},
    {"RetiredFileHeldForGood",
     [](ClientDirectory& c, OwnedHandle& holder) { holder = HoldAgainstChange(c.At(L"old\\retired.bin")); },
     L"Could not create a rollback copy for a retired update file."},
};

class Failures : public testing::TestWithParam<FailureCase> {};

// After the first change every failure puts everything back, and the update can be tried again.
TEST_P(Failures, RestoreEveryByte) {
  ClientDirectory client;
  client.Prepare();
  OwnedHandle holder;
  GetParam().arrange(client, holder);
  const Tree before = client.AllFiles();
  const HelperResult result = client.Apply();
  EXPECT_EQ(result.exit_code, 1u);
  EXPECT_TRUE(result.message.starts_with(GetParam().message)) << WideToUtf8(result.message);
  EXPECT_TRUE(result.message.ends_with(L"\n\nYour existing files were restored."))
      << WideToUtf8(result.message);
  holder.Reset();
  EXPECT_EQ(TreeDifference(client.AllFiles(), before), "");
  ExpectReleased(client.lock);

  WriteTestFile(client.At(L"keep.txt"), "unchanged");
  EXPECT_EQ(client.Apply().exit_code, 0u);
  WaitForReport(client.report);
  ExpectInstalled(client, client.new_release);
}

INSTANTIATE_TEST_SUITE_P(Table, Failures, testing::ValuesIn(kFailures),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Failure, ThatCannotBePutRightSaysWhy) {
  ClientDirectory client;
  client.Prepare();
  const OwnedHandle holder = HoldAgainstChange(client.At(L"old\\retired.bin"));
  const std::wstring journal = client.At(L".talvex-update\\previous\\rollback.journal");
  const HelperResult result =
      client.Run(L"--apply-plan", client.ApplyOperands(), [&](DWORD) { DeleteFileW(journal.c_str()); });
  EXPECT_EQ(result.exit_code, 1u);
  EXPECT_TRUE(result.message.starts_with(
      L"Could not create a rollback copy for a retired update file.\n\nCould not open file: "))
      << WideToUtf8(result.message);
  EXPECT_TRUE(MayExist(client.At(L".talvex-update\\previous\\files\\Data\\a.bin")));
}

}  // namespace
}  // namespace talvex::test
