// The whole life of a client directory: the real client and the real helper, which start each other.

#include <gtest/gtest.h>

#include <windows.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/public_key_pem.h"
#include "core/publisher_key.h"
#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "formats/text_lines.h"
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
  explicit ClientLife(const wchar_t* client = L"Talvex.exe") {
    one.files["Talvex.exe"] = ReadTestFile(BuiltProgram(client));
    one.files["TalvexUpdateHelper.exe"] = ReadTestFile(helper);
    two.files["0.bin"] = "new";
    two.files["Talvex.exe"] = one.files["Talvex.exe"] + "2";  // runs no worse with bytes after its end
    two.files["TalvexUpdateHelper.exe"] += "2";
    WriteTestFile(At(L"Talvex.exe"), one.files["Talvex.exe"]);
    WriteTestFile(At(L"screenshots\\mine.png"), "not managed");
  }

  // Starts the client and waits until neither client nor helper runs any more. The exit code is that of this
  // client, the console what all of them have logged.
  HelperResult Start(const std::wstring& download = {},
                     const std::function<void(DWORD)>& while_running = {}) {
    DeleteFileW(log.c_str());
    std::vector<std::wstring> arguments = {log, download};
    arguments.resize(download.empty() ? 1 : 2);
    HelperResult result = RunHelper(At(L"Talvex.exe"), arguments, {}, while_running);
    result.console = ReadTestFile(log);
    return result;
  }
  HelperResult Update(const TestRelease& release, const std::function<void(DWORD)>& while_running = {}) {
    StagedPlan download;
    for (const auto& file : release.files) {
      download.install.push_back(file.first);
    }
    return Start(StageTestRelease(release, download, scratch.Path()), while_running);
  }

  void ExpectInstalls(const TestRelease& release) {
    const HelperResult result = Update(release);
    EXPECT_EQ(result.exit_code, 3u);
    EXPECT_TRUE(result.console.ends_with("update started\nrestarted after an update\nintact " +
                                         Described(release) + "confirmed\nrunning " + release.name + "\n"))
        << result.console;
    EXPECT_EQ(result.message, L"");
    EXPECT_EQ(TreeDifference(ClientFiles(), FilesOf(release)), "");
    EXPECT_EQ(TreeDifference(ReadTree(At(L".talvex-update")), {}), "");
  }
  void ExpectRefuses(const TestRelease& release, const std::string& reason) {
    const HelperResult result = Update(release);
    EXPECT_EQ(result.exit_code, 1u);
    EXPECT_TRUE(result.console.ends_with("ERROR: " + reason + "\n")) << result.console;
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
    EXPECT_TRUE(Start().console.ends_with("running " + previous.name + "\n"));  // by state and cache
  }

  // Has the helper killed while it installs `release`: with `changed` in place, and while it tries again to
  // replace `held`, the file after it.
  void Interrupt(const TestRelease& release, const std::string& changed, const std::string& held) {
    const Tree before = ClientFiles();
    const OwnedHandle holder(CreateFileW(At(Utf8ToWide(held)).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                         OPEN_EXISTING, 0, nullptr));
    const HelperResult result = Update(release, [&](DWORD process_id) {
      if (ReadTestFile(At(Utf8ToWide(changed))) == release.files.at(changed)) {
        TerminateProcess(OwnedHandle(OpenProcess(PROCESS_TERMINATE, FALSE, process_id)).Get(), 1);
      }
    });
    EXPECT_NE(TreeDifference(ClientFiles(), before), "") << result.console << WideToUtf8(result.message);
  }

  std::wstring log = scratch / L"client.log";
  TestRelease one = old_release;
  TestRelease two = new_release;
};

class EachClient : public testing::TestWithParam<const wchar_t*> {};

// The helper is always a 32-bit program, a client may be either.
INSTANTIATE_TEST_SUITE_P(Bits, EachClient, testing::Values(L"Talvex.exe", L"x64\\Talvex.exe"));

TEST_P(EachClient, GoesFromTheFirstInstallationThroughABrokenReleaseToARepairedOne) {
  ClientLife life(GetParam());
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
  life.ExpectRollsBack(life.Update(broken), 3, "This release cannot start.", life.two, broken);
  life.ExpectRefuses(broken, kFailedBefore);

  const TestRelease repaired = Successor(broken, "3.1", "ok");
  life.ExpectInstalls(repaired);
  life.ExpectRefuses(life.two, "The update server offered an older release. The update was rejected.");
  const HelperResult again = life.Update(repaired);
  EXPECT_EQ(again.exit_code, 0u);
  EXPECT_EQ(again.console, "running 3.1\n");

  // A release whose client dies gives no verdict; the next start does.
  const TestRelease dying = Successor(repaired, "4.0", "die");
  const HelperResult death = life.Update(dying);
  EXPECT_TRUE(death.console.ends_with("\nintact " + Described(dying))) << death.console;
  for (const wchar_t* const path :
       {L"start.cfg", L"TalvexUpdateFailure.dat", L".talvex-update\\previous\\files\\start.cfg"}) {
    EXPECT_TRUE(SetFileAttributesW(life.At(path).c_str(), FILE_ATTRIBUTE_READONLY)) << path;
  }
  life.ExpectRollsBack(life.Start(), 4, "The last start of this release did not come to its end.", repaired,
                       dying);
  life.ExpectRefuses(dying, kFailedBefore);
}

// What a developer copies first.
TEST(ClientLife, IsUpdatedByTheLinesInTheReadme) {
  ClientLife life(L"tests\\readme_client.exe");
  StagedPlan all;
  for (const auto& file : life.two.files) {
    all.install.push_back(file.first);
  }
  SetEnvironmentVariableW(L"TALVEX_TEST_SERVER",
                          StageTestRelease(life.two, all, life.scratch.Path()).c_str());
  EXPECT_EQ(life.Start().exit_code, 0u);
  EXPECT_EQ(TreeDifference(life.ClientFiles(), ClientLife::FilesOf(life.two)), "");
  EXPECT_EQ(TreeDifference(ReadTree(life.At(L".talvex-update")), {}), "");
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
    life.ExpectInstalls(life.one);
    life.Interrupt(life.two, c.changed, c.held);
    life.ExpectRollsBack(life.Start(), 4, c.reason, life.one, life.two);
    life.ExpectInstalls(life.two);
    EXPECT_FALSE(MayExist(life.At(L"TalvexUpdateFailure.dat")));
  }
}

TEST(ClientLife, LetsANewerReleaseInWhenNothingCanBeRestored) {
  ClientLife life;
  life.ExpectInstalls(life.one);
  life.Interrupt(life.two, "Data/deep/er/b.bin", "Talvex.exe");
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
  EXPECT_EQ(life.Start().console, "running 1.0\n");
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
    if (process_id != client && second_client.exit_code == 0) {
      const OwnedHandle helper(OpenProcess(PROCESS_SUSPEND_RESUME, FALSE, process_id));
      NtSuspendProcess(helper.Get());  // most likely before it takes the lock
      second_client = RunHelper(life.At(L"Talvex.exe"), {life.scratch / L"second.log"}, {});
      NtResumeProcess(helper.Get());
    }
  });
  EXPECT_EQ(second_client.exit_code, 1u);
  EXPECT_EQ(ReadTestFile(life.scratch / L"second.log"),
            "ERROR: Talvex already runs from this directory, or is being updated.\n");
  EXPECT_EQ(TreeDifference(life.ClientFiles(), ClientDirectory::FilesOf(life.two)), "");
}

// The build's helper, as it would be if it trusted the other publisher's key.
std::string HelperOfOtherKey() {
  std::string helper = ReadTestFile(BuiltProgram(L"TalvexUpdateHelper.exe"));
  ByteBuffer other_blob;
  UpdateError error;
  EXPECT_TRUE(DecodePublicKeyPem(ReadTestFile(std::wstring(kOtherKey) + L"\\public.pem"), other_blob, error));
  const std::string_view trusted = AsText(PublisherKeyBlob());
  return helper.replace(helper.find(trusted), trusted.size(), AsText(other_blob));
}

// A publisher changes keys: release A is the last of the old key, and its client trusts both; release B is
// the first of the new key, and carries all files of A.
class ChangeOfKeys : public testing::Test {
 protected:
  ChangeOfKeys() {
    a.key_folder = kOtherKey;
    a.files["Talvex.exe"] = ReadTestFile(BuiltProgram(L"tests\\client_of_both_keys.exe"));
    a.files["TalvexUpdateHelper.exe"] = HelperOfOtherKey();
    for (const auto& file : a.files) {
      b.files.insert(file);  // does not replace B's own
    }
    RemoveTestTree(life.root);
    InstallTestRelease(a, life.root);
    WriteTestFile(life.At(L"screenshots\\mine.png"), "not managed");
  }

  ClientLife life;
  TestRelease a = life.one;
  TestRelease b = life.two;
};

TEST_F(ChangeOfKeys, GoesFromTheOldKeyToTheNewOneAndOn) {
  life.ExpectInstalls(b);
  EXPECT_EQ(life.Update(a).exit_code, 1u);  // B's client does not know the old key
  TestRelease next = Successor(b, "3.0", "ok");
  next.files.erase("old/retired.bin");
  life.ExpectInstalls(next);  // retires by the new key
}

TEST_F(ChangeOfKeys, ComesBackFromABrokenRelease) {
  b.files["start.cfg"] = "start=crash\n";
  life.ExpectRollsBack(life.Update(b), 3, "This release cannot start.", a, b);
}

// Cut off before and after the client's program was replaced: either client has it rolled back.
TEST_F(ChangeOfKeys, ComesBackFromAReleaseThatWasCutOff) {
  const struct {
    const char *changed, *held, *reason;
  } cases[] = {{"0.bin", "Data/a.bin", "A file of an unfinished update was left behind.\n"},
               {"Talvex.exe", "TalvexUpdateHelper.exe", "No installed release can be proved.\n"}};
  for (const auto& c : cases) {
    life.Interrupt(b, c.changed, c.held);
    life.ExpectRollsBack(life.Start(), 4, c.reason, a, b);
  }
  life.ExpectInstalls(b);
}

}  // namespace
}  // namespace talvex::test
