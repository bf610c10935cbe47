// The whole life of a client directory: the real client and the real helper, which start each other.

#include <gtest/gtest.h>

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "tests/support/client_directory.h"

// Of ntdll; no header declares them.
extern "C" LONG NTAPI NtSuspendProcess(HANDLE process);
extern "C" LONG NTAPI NtResumeProcess(HANDLE process);

namespace talvex::test {
namespace {

constexpr char kFailedBefore[] = "This release could not start here before. A newer release is needed.";

// The same files as another release, which starts as `start` says.
TestRelease Successor(TestRelease release, const std::string& name, const std::string& start) {
  release.name = name;
  ++release.sequence;
  release.files["start.cfg"] = "start=" + start + "\n";
  return release;
}

std::string Described(const TestRelease& release) {
  return "release=" + release.name + " sequence=" + std::to_string(release.sequence) + "\n";
}

class ClientLife : public ClientDirectory {
 public:
  ClientLife() {
    MakeTestDirectory(scratch / L"temp");
    SetEnvironmentVariableW(L"TMP", (scratch / L"temp").c_str());  // where the client puts its helpers
    SetEnvironmentVariableW(L"TALVEX_CLIENT_LOG", log.c_str());
    one.files["Talvex.exe"] = ReadTestFile(BuiltProgram(L"Talvex.exe"));
    one.files["TalvexUpdateHelper.exe"] = ReadTestFile(helper);
    two.files["0.bin"] = "new";
    two.files["Talvex.exe"] = one.files["Talvex.exe"] + "2";  // runs no worse with bytes after its end
    two.files["TalvexUpdateHelper.exe"] += "2";
    WriteTestFile(At(L"Talvex.exe"), one.files["Talvex.exe"]);
    WriteTestFile(At(L"screenshots\\mine.png"), "not managed");
  }
  ~ClientLife() { SetEnvironmentVariableW(L"TMP", nullptr); }

  // Starts the client and waits until neither client nor helper runs any more. The exit code is that of this
  // client, the console what all of them have logged.
  HelperResult Start(const std::vector<std::wstring>& arguments = {},
                     const std::function<void(DWORD)>& while_running = {}) {
    DeleteFileW(log.c_str());
    HelperResult result = RunHelper(At(L"Talvex.exe"), arguments, {}, while_running);
    result.console = ReadTestFile(log);
    return result;
  }
  HelperResult Update(const TestRelease& release, const std::function<void(DWORD)>& while_running = {}) {
    StagedPlan download;
    for (const auto& file : release.files) {
      download.install.push_back(file.first);
    }
    return Start({L"--update", StageTestRelease(release, download, scratch.Path())}, while_running);
  }

  void ExpectInstalls(const TestRelease& release) {
    const HelperResult result = Update(release);
    EXPECT_EQ(result.exit_code, 3u);
    EXPECT_TRUE(result.console.ends_with("update started\nrestarted after an update\nhealthy " +
                                         Described(release) + "running " + Described(release)))
        << result.console;
    EXPECT_EQ(result.message, L"");
    EXPECT_EQ(TreeDifference(ClientFiles(), FilesOf(release)), "");
    EXPECT_EQ(TreeDifference(ReadTree(At(L".talvex-update")), {}), "");
  }
  void ExpectRefuses(const TestRelease& release, const std::string& reason) {
    const HelperResult result = Update(release);
    EXPECT_EQ(result.exit_code, 1u);
    EXPECT_EQ(result.console, "ERROR: " + reason + "\n");
  }
  void ExpectRollsBack(const HelperResult& result, DWORD exit_code, const std::string& reason,
                       const TestRelease& previous, const TestRelease& failed) {
    EXPECT_EQ(result.exit_code, exit_code);
    EXPECT_NE(result.console.find("broken: " + reason), std::string::npos) << result.console;
    EXPECT_TRUE(result.console.ends_with("\nrollback started\n")) << result.console;
    EXPECT_EQ(result.message,
              L"The last update could not start correctly, so Talvex restored the previous client files. A "
              L"newer update is required before this release will be tried again.");
    EXPECT_EQ(TreeDifference(ClientFiles(), FilesOf(previous)), "");
    EXPECT_EQ(ReadTestFile(At(L"TalvexUpdateFailure.dat")), HexDigestOf(failed.ManifestText()) + "\n");
    EXPECT_TRUE(Start().console.ends_with("running " + Described(previous)));  // by state and cache
  }

  // Installs release one, then has the helper killed while it installs release two: with `changed` in place,
  // and while it tries again to replace `held`, the file after it.
  void InterruptUpdate(const std::string& changed, const std::string& held) {
    ExpectInstalls(one);
    const OwnedHandle holder(CreateFileW(At(Utf8ToWide(held)).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                         OPEN_EXISTING, 0, nullptr));
    Update(two, [&](DWORD process_id) {
      if (ReadTestFile(At(Utf8ToWide(changed))) == two.files.at(changed)) {
        TerminateProcess(OwnedHandle(OpenProcess(PROCESS_TERMINATE, FALSE, process_id)).Get(), 1);
      }
    });
    EXPECT_NE(TreeDifference(ClientFiles(), FilesOf(one)), "");
  }

  std::wstring log = scratch / L"client.log";
  TestRelease one = old_release;
  TestRelease two = new_release;
};

TEST(ClientLife, GoesFromTheFirstInstallationThroughABrokenReleaseToARepairedOne) {
  ClientLife life;
  life.ExpectInstalls(life.one);
  life.ExpectInstalls(life.two);

  TestRelease broken = Successor(life.two, "3.0", "crash");
  for (const char* const changed : {"Talvex.exe", "TalvexUpdateHelper.exe", "Data/a.bin", "more/c.bin"}) {
    broken.files[changed] += "3";
  }
  broken.files.erase("Data/deep/er/b.bin");
  for (const wchar_t* const path : {L"Data\\a.bin", L"Data\\deep\\er\\b.bin", L"TalvexUpdateState.dat"}) {
    SetFileAttributesW(life.At(path).c_str(), FILE_ATTRIBUTE_READONLY);
  }
  life.ExpectRollsBack(life.Update(broken), 3, "The start script asks for a crash.", life.two, broken);
  life.ExpectRefuses(broken, kFailedBefore);

  const TestRelease repaired = Successor(broken, "3.1", "ok");
  life.ExpectInstalls(repaired);
  life.ExpectRefuses(life.two, "The update server offered an older release. The update was rejected.");
  const HelperResult again = life.Update(repaired);
  EXPECT_EQ(again.exit_code, 0u);
  EXPECT_EQ(again.console, "installed already release=3.1 sequence=4\n");
  EXPECT_EQ(life.Start().console, "running release=3.1 sequence=4\n");
  EXPECT_EQ(life.Start({L"--update"}).exit_code, 2u);

  // A release whose client dies gives no verdict; the next start does.
  const TestRelease dying = Successor(repaired, "4.0", "die");
  const HelperResult death = life.Update(dying);
  EXPECT_TRUE(death.console.ends_with("update started\nrestarted after an update\n")) << death.console;
  life.ExpectRollsBack(life.Start(), 4, "The last start of this release did not come to its end.", repaired,
                       dying);
  life.ExpectRefuses(dying, kFailedBefore);
}

// Cut off after a new file, and after a replaced one: the previous release comes back to the byte, and the
// new one, which has shown no fault, can be installed.
TEST(ClientLife, SettlesAnUpdateWhoseHelperWasKilled) {
  const struct {
    const char *changed, *held, *reason;
  } cases[] = {{"0.bin", "Data/a.bin", "A file of an unfinished update was left behind.\n"},
               {"Data/deep/er/b.bin", "Talvex.exe", "Data\\a.bin: "}};
  for (const auto& c : cases) {
    ClientLife life;
    life.InterruptUpdate(c.changed, c.held);
    life.ExpectRollsBack(life.Start(), 4, c.reason, life.one, life.two);
    life.ExpectInstalls(life.two);
    EXPECT_FALSE(MayExist(life.At(L"TalvexUpdateFailure.dat")));
  }
}

TEST(ClientLife, LetsANewerReleaseInWhenNothingCanBeRestored) {
  ClientLife life;
  life.InterruptUpdate("Data/deep/er/b.bin", "Talvex.exe");
  DeleteFileW(life.At(L".talvex-update\\previous\\recovery\\new-manifest.txt").c_str());
  EXPECT_EQ(life.Start().exit_code, 1u);
  life.ExpectInstalls(life.two);
}

// Nobody can roll back with them: what is whole needs them no longer, and what is not is not played.
TEST(ClientLife, ClearsCopiesWithoutAJournalOrWaitsForAnUpdate) {
  ClientLife life;
  life.ExpectInstalls(life.one);
  const std::wstring copy = life.At(L".talvex-update\\previous\\files\\keep.txt");
  WriteTestFile(copy, "kept");
  EXPECT_EQ(life.Start().console, "running release=1.0 sequence=1\n");
  EXPECT_EQ(TreeDifference(ReadTree(life.At(L".talvex-update")), {}), "");
  WriteTestFile(copy, "kept");
  WriteTestFile(life.At(L"keep.txt"), "CHANGED!");
  const HelperResult damaged = life.Start();
  EXPECT_EQ(damaged.exit_code, 1u);
  EXPECT_EQ(damaged.console,
            "broken: keep.txt: A file differs from its release.\n"
            "ERROR: keep.txt: A file differs from its release.\n");
  life.ExpectInstalls(life.two);
}

TEST(ClientLife, KeepsASecondClientOutWhileAHelperIsAtWork) {
  ClientLife life;
  life.ExpectInstalls(life.one);
  DWORD client = 0;
  HelperResult second_client;
  life.Update(life.two, [&](DWORD process_id) {
    client = client == 0 ? process_id : client;
    if (process_id != client && second_client.console.empty()) {
      const OwnedHandle helper(OpenProcess(PROCESS_SUSPEND_RESUME, FALSE, process_id));
      NtSuspendProcess(helper.Get());  // most likely before it takes the lock
      second_client = RunHelper(life.At(L"Talvex.exe"), {}, {});
      NtResumeProcess(helper.Get());
    }
  });
  EXPECT_EQ(second_client.exit_code, 1u);
  EXPECT_EQ(second_client.console, "ERROR: Talvex already runs from this directory, or is being updated.\n");
  EXPECT_EQ(TreeDifference(life.ClientFiles(), ClientDirectory::FilesOf(life.two)), "");
}

}  // namespace
}  // namespace talvex::test
