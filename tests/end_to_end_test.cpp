// The real helper, started with real inherited handles on real directories: what no run inside a test program
// shows, above all the client that it starts, and everything that it leaves on the disk.

#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <thread>
#include <vector>

#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "tests/support/client_directory.h"

namespace talvex::test {
namespace {

void ExpectInstalled(const ClientDirectory& client, const TestRelease& release) {
  Tree found = client.AllFiles();
  std::erase_if(found, [](const auto& item) {
    return item.first.starts_with(L".talvex-update\\") || item.first == L"TalvexUpdateFailure.dat";
  });
  Tree expected = release.Installed();
  expected[L"screenshots\\mine.png"] = "not managed";
  EXPECT_EQ(TreeDifference(found, expected), "");
}

// What undoes the update, and nothing else, is left in the work directory. (The rollback proves contents.)
void ExpectRollbackData(const ClientDirectory& client) {
  std::wstring files;
  for (const auto& [path, contents] : ReadTree(client.At(L".talvex-update"))) {
    files += path.back() == L'\\' ? L"" : path + L"\n";
  }
  EXPECT_EQ(files,
            L"previous\\files\\Data\\a.bin\n"
            L"previous\\files\\Data\\deep\\er\\b.bin\n"
            L"previous\\files\\TalvexUpdateHelper.exe\n"
            L"previous\\files\\old\\retired.bin\n"
            L"previous\\old-install\\.talvex-update-cache\\manifest.sig\n"
            L"previous\\old-install\\.talvex-update-cache\\manifest.txt\n"
            L"previous\\old-install\\TalvexUpdateState.dat\n"
            L"previous\\recovery\\new-manifest.sig\n"
            L"previous\\recovery\\new-manifest.txt\n"
            L"previous\\recovery\\rollback-helper.exe\n"
            L"previous\\rollback.journal\n");
}

TEST(RealHelper, UpdatesRestartsTheClientAndCanTakeTheUpdateBack) {
  ClientDirectory client;
  client.Prepare();
  WriteTestFile(client.At(L".talvex-update\\stale\\left.tmp"), "by an earlier run");
  WriteTestFile(client.At(L".talvex-update\\previous\\files\\stale"), "by an earlier update");
  const HelperResult update = client.Apply();
  EXPECT_EQ(update.exit_code, 0u);
  EXPECT_EQ(update.message, L"");
  EXPECT_TRUE(update.showed_window);
  const std::string root = WideToUtf8(client.root);
  EXPECT_EQ(ReadTestFile(client.report), "manifest=" + HexDigestOf(client.new_release.ManifestText()) +
                                             "\nlock=0\nfolder=" + root + "\ncommand=\"" + root +
                                             "\\Talvex.exe\"\n");
  EXPECT_EQ(WaitForSingleObject(client.stray_event.Get(), 0), WAIT_TIMEOUT) << "inherited by the client";
  ExpectInstalled(client, client.new_release);
  // Free again, and released rather than left behind by a process that ended.
  EXPECT_EQ(WaitForSingleObject(client.lock.Get(), 5'000), WAIT_OBJECT_0);
  ReleaseMutex(client.lock.Get());
  ExpectRollbackData(client);

  // By the kept helper in its place: Windows does not delete a running program, so it may stay there.
  client.helper = client.At(L".talvex-update\\previous\\recovery\\rollback-helper.exe");
  const HelperResult rollback = client.Rollback();
  EXPECT_EQ(rollback.exit_code, 0u);
  EXPECT_EQ(rollback.caption, L"Talvex Update");
  ExpectInstalled(client, client.old_release);
  EXPECT_EQ(ReadTestFile(client.At(L"TalvexUpdateFailure.dat")),
            HexDigestOf(client.new_release.ManifestText()) + "\n");
  EXPECT_FALSE(MayExist(client.At(L".talvex-update\\previous\\rollback.journal")));
}

TEST(RealHelper, InstallsAFirstReleaseUnderAnAbandonedLockIntoFoldersInAnyCase) {
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
  const HelperResult result = client.Run(L"--APPLY-PLAN", operands);
  EXPECT_EQ(result.exit_code, 0u) << WideToUtf8(result.message);
  EXPECT_NE(ReadTestFile(client.report).find("lock=0\n"), std::string::npos);
  ExpectInstalled(client, client.new_release);
}

TEST(RealHelper, ChangesNothingWhileTheClientRunsOrKeepsTheLock) {
  ClientDirectory client;
  client.Prepare();
  const Tree before = client.AllFiles();
  WaitForSingleObject(client.lock.Get(), 0);
  EXPECT_EQ(client.Apply().message, L"Talvex could not retain its update ownership lock.");
  EXPECT_EQ(client.Rollback().message, L"Talvex could not retain its rollback ownership lock.");
  EXPECT_TRUE(ReleaseMutex(client.lock.Get())) << "the helper released a lock that it did not own";
  // A handle that cannot be waited for stands for a client that does not exit: the wait fails at once.
  client.parent = MakeInheritable(
      CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY | SEC_RESERVE, 0, 4096, nullptr));
  EXPECT_EQ(client.Apply().message, L"Talvex did not close in time for the update.");
  EXPECT_EQ(client.Rollback().message, L"Talvex did not close in time for rollback.");
  EXPECT_EQ(TreeDifference(client.AllFiles(), before), "");
}

}  // namespace
}  // namespace talvex::test
