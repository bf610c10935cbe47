// TalvexPublish.exe, run as release engineers run it.

#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <string_view>
#include <vector>

#include "core/regular_file.h"
#include "tests/support/helper_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

class Publisher : public testing::Test {
 protected:
  // Runs the program, expects its exit code and each of the texts, and returns all that it says.
  static std::string Publish(const std::vector<std::wstring>& words, DWORD exit_code,
                             const std::vector<std::string>& texts) {
    const HelperResult result = RunHelper(BuiltProgram(L"TalvexPublish.exe"), words, {});
    EXPECT_EQ(result.exit_code, exit_code) << result.console;
    for (const std::string& text : texts) {
      EXPECT_NE(result.console.find(text), std::string::npos) << "not said: " << text << "\n"
                                                              << result.console;
    }
    return result.console;
  }
  std::string MakeManifest(DWORD exit_code, const std::vector<std::string>& texts) const {
    return Publish({L"manifest", L"--release", L"2.0-beta", L"--sequence", L"12", L"--out", out, client},
                   exit_code, texts);
  }

  ScratchDirectory scratch;
  std::wstring client = scratch / L"client";
  std::wstring out = scratch / L"out";
};

TEST_F(Publisher, WritesTheFilesInAStableOrderWithoutTheUpdatersOwn) {
  const TestRelease release{"2.0-beta",
                            12,
                            {{"Talvex.exe", "client"},
                             {"TalvexUpdateHelper.exe", "helper"},
                             {"a/TalvexUpdateState.dat", "not at the top: a file like any other"},
                             {"a.b", "sorted before a/ byte by byte"},
                             {"data/deep/er/x.bin", std::string(1'500'000, 'x')},
                             {"data/X.bin", "x"}}};
  InstallTestRelease(release, client);  // with its state and cache
  WriteTestFile(client + L"\\TalvexUpdateFailure.dat", "old");
  WriteTestFile(client + L"\\.talvex-update\\previous\\files\\a", "old");
  MakeTestDirectory(client + L"\\empty");
  const std::string said = MakeManifest(
      0, {"release=2.0-beta sequence=12 files=6", "manifest-sha256 " + HexDigestOf(release.ManifestText()),
          "Left out, as it is the updater's own: .talvex-update-cache"});
  EXPECT_EQ(said.find("Warning"), std::string::npos);
  EXPECT_EQ(ReadTestFile(out + L"\\manifest.txt"), release.ManifestText());
}

TEST_F(Publisher, WarnsOfAReleaseThatTheHelperCannotInstall) {
  WriteTestFile(client + L"\\talvex.exe", "in another spelling");
  MakeManifest(0, {"Warning: the release has no Talvex.exe at its top",
                   "Warning: the release has no TalvexUpdateHelper.exe at its top"});
}

TEST_F(Publisher, NamesEverythingThatNoReleaseCanCarryAndWritesNothing) {
  const std::vector<std::wstring> paths = {L"fine.txt",
                                           L"with blank.txt",
                                           L"\x00e4.txt",
                                           L"data\\first.bin",
                                           std::wstring(101, L's'),
                                           std::wstring(90, L'd') + L"\\" + std::wstring(79, L'e'),
                                           std::wstring(100, L'f') + L"\\" + std::wstring(60, L'g') + L"\\h"};
  for (const std::wstring& path : paths) {
    WriteTestFile(client + L"\\" + path, "1");
  }
  WriteTestFile(client + L"\\empty.txt", "");
  EXPECT_TRUE(
      CreateHardLinkW((client + L"\\second.bin").c_str(), (client + L"\\data\\first.bin").c_str(), nullptr));
  MakeSparseFile(client + L"\\huge.bin", 8'589'934'593);
  MakeTestDirectory(scratch / L"elsewhere");
  MakeJunction(client + L"\\junction", scratch / L"elsewhere");
  const std::string said = MakeManifest(
      1, {"empty.txt: is empty", "with blank.txt: The update manifest path is outside the supported ASCII",
          "\xc3\xa4.txt: The update manifest path is outside the supported ASCII",
          "first.bin: has more than one hard link", "second.bin: has more than one hard link",
          "huge.bin: is larger than 8 GiB", "ss: The update manifest contains an unsafe path segment",
          "ee: is too long a path to be staged", "gg\\h: is too long a path to be staged",
          "junction: is a link", "10 of its files or directories"});
  EXPECT_EQ(said.find("fine.txt"), std::string::npos);
  EXPECT_FALSE(MayExist(out));
}

TEST_F(Publisher, ProvesTheSignedPairWithThePublicKeyFile) {
  const TestRelease release{"1.0", 1, {{"Talvex.exe", "client"}}};
  WriteTestFile(out + L"\\manifest.txt", release.ManifestText());
  WriteTestFile(out + L"\\manifest.sig", release.Signature());
  const auto verify = [&](std::wstring_view key, DWORD exit_code, const std::string& text) {
    Publish({L"verify", out, L"--public-key", BuiltProgram(key)}, exit_code, {text});
  };
  verify(L"development-key\\public.pem", 0, "OK release=1.0 sequence=1 files=1");
  verify(L"fixtures\\other-key\\public.pem", 1, "The update manifest signature is invalid.");
  verify(L"fixtures\\short-public.pem", 1, "The update key or signature does not use RSA-3072.");
  verify(L"fixtures\\curve-public.pem", 1, "The public key is not an RSA key.");
  verify(L"development-key\\private.pem", 1, "The file does not hold one public key in PEM form.");
  verify(L"missing.pem", 1, "Could not open file: ");
  WriteTestFile(out + L"\\manifest.txt", release.ManifestText() + "\n");
  verify(L"development-key\\public.pem", 1, "The update manifest signature is invalid.");
}

TEST_F(Publisher, RefusesCommandLinesThatItCannotUse) {
  WriteTestFile(client + L"\\Talvex.exe", "client");
  const std::vector<std::vector<std::wstring>> lines = {
      {},
      {L"publish"},
      {L"manifest", L"--release", L"1", L"--sequence", L"1", client},
      {L"manifest", L"--release", L"1", L"--sequence", L"1", L"--out", out},
      {L"manifest", L"--release", L"1", L"--sequence", L"1", L"--out", out, client, client},
      {L"manifest", L"--release", L"1", L"--release", L"1", L"--sequence", L"1", L"--out", out, client},
      {L"manifest", L"--release", L"1.", L"--sequence", L"1", L"--out", out, client},
      {L"manifest", L"--release", L"1", L"--sequence", L"0", L"--out", out, client},
      {L"manifest", L"--release", L"1", L"--sequence", L"1", L"--out", client + L"\\Out", client},
      {L"manifest", L"--release", L"1", L"--sequence", L"1", L"--colour", L"red", L"--out", out, client},
      {L"verify", out},
      {L"verify", out, L"--public-key"},
  };
  for (const std::vector<std::wstring>& line : lines) {
    Publish(line, 2, {"TalvexPublish.exe --help"});
  }
  EXPECT_FALSE(MayExist(out));
  Publish({L"--help"}, 0, {});
}

}  // namespace
}  // namespace talvex::test
