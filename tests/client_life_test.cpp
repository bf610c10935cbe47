// The whole life of a client directory: the real client and the real helper, which start each other.

#include <gtest/gtest.h>

#include <windows.h>
// Needs windows.h first.
#include <process.h>
#include <tlhelp32.h>

#include <functional>
#include <string>

#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "storage/client_root.h"
#include "tests/support/client_directory.h"

namespace talvex::test {
namespace {

constexpr wchar_t kRestored[] =
    L"The last update could not start correctly, so Talvex restored the previous client files. A newer "
    L"update is required before this release will be tried again.";

constexpr char kFailedBefore[] = "This release could not start here before. A newer release is needed.";

// The same files as another release, which starts as `start` says.
TestRelease Successor(TestRelease release, const std::string& name, const std::string& start) {
  release.name = name;
  ++release.sequence;
  release.files["start.cfg"] = "start=" + start + "\n";
  return release;
}

struct Outcome {
  DWORD exit_code = 0;   // of the client that was started, not of the one that the helper starts
  std::string log;       // of both
  std::wstring message;  // of the helper
};

class ClientLife : public ClientDirectory {
 public:
  ClientLife() {
    SetEnvironmentVariableW(L"TMP", helper_places.c_str());
    SetEnvironmentVariableW(L"TALVEX_CLIENT_LOG", log.c_str());
    MakeTestDirectory(helper_places);
    const std::string client = ReadTestFile(BuiltProgram(L"Talvex.exe"));
    WriteTestFile(At(L"Talvex.exe"), client);
    WriteTestFile(At(L"screenshots\\mine.png"), "not managed");
    one = old_release;
    one.files["Talvex.exe"] = client;
    one.files["TalvexUpdateHelper.exe"] = ReadTestFile(helper);
    one.files["z.bin"] = "z";
    two = new_release;
    two.files["0.bin"] = "new";
    two.files["Talvex.exe"] = client + "2";  // bytes after its end do not keep a program from running
    two.files["TalvexUpdateHelper.exe"] += "2";
    two.files["z.bin"] = "zz";
  }
  ~ClientLife() { SetEnvironmentVariableW(L"TMP", temporary.c_str()); }

  // Without a pipe to read its output from: Wine passes that on to every program that is started from there.
  [[nodiscard]] OwnedHandle StartClient(const std::wstring& arguments) const {
    const std::wstring program = At(L"Talvex.exe");
    return OwnedHandle(reinterpret_cast<HANDLE>(
        _wspawnl(_P_NOWAIT, program.c_str(), (L"\"" + program + L"\"").c_str(), arguments.c_str(), nullptr)));
  }

  // Starts the client and waits until neither client nor helper runs any more. `while_running` is given each
  // helper that runs, again and again.
  Outcome Start(const std::wstring& arguments = {}, const std::function<void(HANDLE)>& while_running = {}) {
    DeleteFileW(log.c_str());
    const OwnedHandle client = StartClient(arguments);
    HelperResult result;
    // Each program starts the next before it exits; the second look is for one that exits during the first.
    for (int quiet = 0; quiet < 2; quiet = SomethingRuns(result, while_running) ? 0 : quiet + 1) {
      Sleep(10);
    }
    GetExitCodeProcess(client.Get(), &result.exit_code);
    return {result.exit_code, ReadTestFile(log), result.message};
  }
  Outcome Update(const TestRelease& release, const std::function<void(HANDLE)>& while_running = {}) {
    const std::wstring folder = scratch / (L"release-" + Utf8ToWide(release.name));
    InstallTestRelease(release, folder + L"\\files");
    WriteTestFile(folder + L"\\manifest.txt", release.ManifestText());
    WriteTestFile(folder + L"\\manifest.sig", release.Signature());
    return Start(L"--update \"" + folder + L"\"", while_running);
  }

  // Installs release one, then has the helper killed while it installs release two, with the first change
  // made and `held` still to come. Returns what was there before.
  Tree InterruptUpdate(const std::wstring& first_change, const std::wstring& held) {
    ExpectInstalled(one, Update(one));
    const Tree before = RecordedFiles();
    const std::string unchanged = ReadTestFile(At(first_change));
    const OwnedHandle holder(
        CreateFileW(At(held).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    Update(two, [&](HANDLE process) {
      if (ReadTestFile(At(first_change)) != unchanged) {
        TerminateProcess(process, 1);
      }
    });
    EXPECT_NE(TreeDifference(RecordedFiles(), before), "");
    return before;
  }

  // With state and cache, without the work directory.
  [[nodiscard]] Tree RecordedFiles() const {
    Tree tree = AllFiles();
    std::erase_if(tree, [](const auto& item) { return item.first.starts_with(L".talvex-update\\"); });
    return tree;
  }

  void ExpectInstalled(const TestRelease& release, const Outcome& outcome) {
    EXPECT_EQ(outcome.exit_code, 3u);
    const std::string name =
        "release=" + release.name + " sequence=" + std::to_string(release.sequence) + "\n";
    EXPECT_TRUE(outcome.log.ends_with("update started\nrestarted after an update\nhealthy " + name +
                                      "running " + name))
        << outcome.log;
    EXPECT_EQ(outcome.message, L"");
    EXPECT_EQ(TreeDifference(ClientFiles(), FilesOf(release)), "");
    EXPECT_EQ(TreeDifference(ReadTree(At(L".talvex-update")), {}), "");
  }
  void ExpectRolledBack(const Outcome& outcome, DWORD exit_code, const std::string& reason, Tree expected,
                        const TestRelease& failed) {
    EXPECT_EQ(outcome.exit_code, exit_code);
    EXPECT_NE(outcome.log.find("broken: " + reason), std::string::npos) << outcome.log;
    EXPECT_TRUE(outcome.log.ends_with("\nrollback started\n")) << outcome.log;
    EXPECT_EQ(outcome.message, kRestored);
    expected[L"TalvexUpdateFailure.dat"] = HexDigestOf(failed.ManifestText()) + "\n";
    EXPECT_EQ(TreeDifference(RecordedFiles(), expected), "");
  }
  static void ExpectRefused(const Outcome& outcome, const std::string& reason) {
    EXPECT_EQ(outcome.exit_code, 1u);
    EXPECT_EQ(outcome.log, "ERROR: " + reason + "\n");
  }

  std::wstring temporary = std::wstring(ParentOfRelativePath(scratch.Path()));
  std::wstring helper_places = scratch / L"temp";
  std::wstring log = scratch / L"client.log";
  TestRelease one, two;

 private:
  // Whether a program runs whose file is in the scratch directory.
  bool SomethingRuns(HelperResult& result, const std::function<void(HANDLE)>& while_running) {
    bool runs = false;
    const OwnedHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Process32FirstW(snapshot.Get(), &entry); more;
         more = Process32NextW(snapshot.Get(), &entry)) {
      const OwnedHandle process(OpenProcess(PROCESS_ALL_ACCESS, FALSE, entry.th32ProcessID));
      std::wstring path(MAX_PATH, L'\0');
      DWORD length = MAX_PATH;
      if (WaitForSingleObject(process.Get(), 0) != WAIT_TIMEOUT ||
          !QueryFullProcessImageNameW(process.Get(), 0, path.data(), &length) ||
          !path.starts_with(scratch.Path())) {
        continue;
      }
      runs = true;
      AnswerMessageBoxes(entry.th32ProcessID, result);
      if (while_running && path.starts_with(helper_places)) {
        while_running(process.Get());
      }
    }
    return runs;
  }
};

TEST(ClientLife, GoesFromTheFirstInstallationThroughABrokenReleaseToARepairedOne) {
  ClientLife life;
  life.ExpectInstalled(life.one, life.Update(life.one));
  life.ExpectInstalled(life.two, life.Update(life.two));

  TestRelease broken = Successor(life.two, "3.0", "crash");
  broken.files["Talvex.exe"] += "3";
  broken.files["z.bin"] += "3";
  broken.files["TalvexUpdateHelper.exe"] += "3";
  broken.files["more/c.bin"] = "more";
  broken.files.erase("Data/deep/er/b.bin");
  for (const wchar_t* const path : {L"z.bin", L"Data\\deep\\er\\b.bin", L"TalvexUpdateState.dat"}) {
    SetFileAttributesW(life.At(path).c_str(), FILE_ATTRIBUTE_READONLY);
  }
  Tree before = life.RecordedFiles();
  life.ExpectRolledBack(life.Update(broken), 3, "The start script asks for a crash.", before, broken);
  life.ExpectRefused(life.Update(broken), kFailedBefore);

  const TestRelease repaired = Successor(broken, "3.1", "ok");
  life.ExpectInstalled(repaired, life.Update(repaired));
  life.ExpectRefused(life.Update(life.two),
                     "The update server offered an older release. The update was rejected.");
  const Outcome again = life.Update(repaired);
  EXPECT_EQ(again.exit_code, 0u);
  EXPECT_EQ(again.log, "installed already release=3.1 sequence=4\n");
  EXPECT_EQ(life.Start().log, "running release=3.1 sequence=4\n");
  EXPECT_EQ(life.Start(L"--update").exit_code, 2u);

  // A release whose client dies gives no verdict; the next start does.
  const TestRelease dying = Successor(repaired, "4.0", "die");
  before = life.RecordedFiles();
  const Outcome death = life.Update(dying);
  EXPECT_TRUE(death.log.ends_with("update started\nrestarted after an update\n")) << death.log;
  life.ExpectRolledBack(life.Start(), 4, "The last start of this release did not come to its end.", before,
                        dying);
  life.ExpectRefused(life.Update(dying), kFailedBefore);
}

// Cut off after a new file, and after a replaced one: the previous release comes back to the byte, and the
// new one, which has shown no fault, can be installed.
TEST(ClientLife, SettlesAnUpdateWhoseHelperWasKilled) {
  const struct {
    const wchar_t *first_change, *held;
    const char* reason;
  } cases[] = {{L"0.bin", L"Data\\a.bin", "A file of an unfinished update was left behind.\n"},
               {L"Data\\a.bin", L"z.bin", "Data\\a.bin: "}};
  for (const auto& c : cases) {
    ClientLife life;
    const Tree before = life.InterruptUpdate(c.first_change, c.held);
    life.ExpectRolledBack(life.Start(), 4, c.reason, before, life.two);
    life.ExpectInstalled(life.two, life.Update(life.two));
    EXPECT_FALSE(MayExist(life.At(L"TalvexUpdateFailure.dat")));
  }
}

TEST(ClientLife, LetsANewerReleaseInWhenNothingCanBeRestored) {
  ClientLife life;
  life.InterruptUpdate(L"Data\\a.bin", L"z.bin");
  DeleteFileW(life.At(L".talvex-update\\previous\\recovery\\new-manifest.txt").c_str());
  EXPECT_EQ(life.Start().exit_code, 1u);
  life.ExpectInstalled(life.two, life.Update(life.two));
}

// Nobody can roll back with them: what is whole needs them no longer, and what is not is not played.
TEST(ClientLife, ClearsCopiesWithoutAJournalOrWaitsForAnUpdate) {
  ClientLife life;
  life.ExpectInstalled(life.one, life.Update(life.one));
  const std::wstring copy = life.At(L".talvex-update\\previous\\files\\z.bin");
  WriteTestFile(copy, "zero");
  EXPECT_EQ(life.Start().log, "running release=1.0 sequence=1\n");
  EXPECT_EQ(TreeDifference(ReadTree(life.At(L".talvex-update")), {}), "");
  WriteTestFile(copy, "zero");
  WriteTestFile(life.At(L"z.bin"), "Z");
  const Outcome outcome = life.Start();
  EXPECT_EQ(outcome.exit_code, 1u);
  EXPECT_EQ(outcome.log,
            "broken: z.bin: A file differs from its release.\n"
            "ERROR: z.bin: A file differs from its release.\n");
  life.ExpectInstalled(life.two, life.Update(life.two));
}

TEST(ClientLife, KeepsASecondClientOutWhileAHelperIsAtWork) {
  const auto tell = [](const char* function, HANDLE process) {
    const auto address = GetProcAddress(GetModuleHandleW(L"ntdll"), function);
    reinterpret_cast<LONG(WINAPI*)(HANDLE)>(reinterpret_cast<void*>(address))(process);
  };
  ClientLife life;
  ASSERT_EQ(life.Update(life.one).exit_code, 3u);
  DWORD second = 0;
  std::string log;
  const Outcome outcome = life.Update(life.two, [&](HANDLE process) {
    if (log.empty()) {
      tell("NtSuspendProcess", process);  // most likely before it takes the lock
      const OwnedHandle client = life.StartClient(L"");
      WaitForSingleObject(client.Get(), INFINITE);
      GetExitCodeProcess(client.Get(), &second);
      log = ReadTestFile(life.log);
      tell("NtResumeProcess", process);
    }
  });
  EXPECT_EQ(second, 1u);
  EXPECT_TRUE(log.ends_with("ERROR: Talvex already runs from this directory, or is being updated.\n")) << log;
  EXPECT_EQ(outcome.exit_code, 3u);
  EXPECT_EQ(TreeDifference(life.ClientFiles(), ClientDirectory::FilesOf(life.two)), "");
}

}  // namespace
}  // namespace talvex::test
