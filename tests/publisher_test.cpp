// TalvexPublish.exe, run as release engineers run it.

#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <string_view>
#include <vector>

#include "core/regular_file.h"
#include "storage/client_root.h"
#include "tests/support/helper_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

HelperResult Publish(const std::vector<std::wstring>& words) {
  return RunHelper(BuiltProgram(L"TalvexPublish.exe"), words, {});
}

void ExpectSays(const HelperResult& result, std::string_view text) {
  EXPECT_NE(result.console.find(text), std::string::npos) << "not said: " << text << "\n" << result.console;
}

class Publisher : public testing::Test {
 protected:
  HelperResult MakeManifest() const {
    return Publish({L"manifest", L"--release", L"2.0-beta", L"--sequence", L"12", L"--out", out, client});
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
  const HelperResult result = MakeManifest();
  EXPECT_EQ(result.exit_code, 0u);
  EXPECT_EQ(ReadTestFile(out + L"\\manifest.txt"), release.ManifestText());
  ExpectSays(result, "release=2.0-beta sequence=12 files=6");
  ExpectSays(result, "manifest-sha256 " + HexDigestOf(release.ManifestText()));
  ExpectSays(result, "Left out, as it is the updater's own: .talvex-update-cache");
  EXPECT_EQ(result.console.find("Warning"), std::string::npos);
}

TEST_F(Publisher, WarnsOfAReleaseThatTheHelperCannotInstall) {
  WriteTestFile(client + L"\\talvex.exe", "in another spelling");
  const HelperResult result = MakeManifest();
  EXPECT_EQ(result.exit_code, 0u);
  ExpectSays(result, "Warning: the release has no Talvex.exe at its top");
  ExpectSays(result, "Warning: the release has no TalvexUpdateHelper.exe at its top");
}

TEST_F(Publisher, NamesEverythingThatNoReleaseCanCarryAndWritesNothing) {
  const std::wstring deep = std::wstring(90, L'd') + L"\\" + std::wstring(79, L'e');
  WriteTestFile(client + L"\\fine.txt", "fine");
  WriteTestFile(client + L"\\empty.txt", "");
  WriteTestFile(client + L"\\with blank.txt", "1");
  WriteTestFile(client + L"\\\x00e4.txt", "1");
  WriteTestFile(client + L"\\data\\first.bin", "1");
  EXPECT_TRUE(
      CreateHardLinkW((client + L"\\second.bin").c_str(), (client + L"\\data\\first.bin").c_str(), nullptr));
  MakeSparseFile(client + L"\\huge.bin", 8'589'934'593);
  WriteTestFile(client + L"\\" + std::wstring(101, L's'), "1");
  WriteTestFile(client + L"\\" + deep, "1");
  WriteTestFile(client + L"\\" + std::wstring(100, L'f') + L"\\" + std::wstring(60, L'g') + L"\\h", "1");
  MakeTestDirectory(scratch / L"elsewhere");
  MakeJunction(client + L"\\junction", scratch / L"elsewhere");
  const HelperResult result = MakeManifest();
  EXPECT_EQ(result.exit_code, 1u);
  for (const char* const refusal :
       {"empty.txt: is empty", "with blank.txt: The update manifest path is outside the supported ASCII",
        "\xc3\xa4.txt: The update manifest path is outside the supported ASCII",
        "first.bin: has more than one hard link", "second.bin: has more than one hard link",
        "huge.bin: is larger than 8 GiB", "ss: The update manifest contains an unsafe path segment",
        "ee: is too long a path to be staged", "gg\\h: is too long a path to be staged",
        "junction: is a link", "10 of its files or directories"}) {
    ExpectSays(result, refusal);
  }
  EXPECT_EQ(result.console.find("fine.txt"), std::string::npos);
  EXPECT_FALSE(MayExist(out));
}

TEST_F(Publisher, ProvesTheSignedPairWithThePublicKeyFile) {
  const TestRelease release{"1.0", 1, {{"Talvex.exe", "client"}}};
  WriteTestFile(out + L"\\manifest.txt", release.ManifestText());
  WriteTestFile(out + L"\\manifest.sig", release.Signature());
  const auto verify = [&](std::wstring_view key) {
    return Publish({L"verify", out, L"--public-key", BuiltProgram(key)});
  };
  const HelperResult right = verify(L"development-key\\public.pem");
  EXPECT_EQ(right.exit_code, 0u);
  ExpectSays(right, "OK release=1.0 sequence=1 files=1");

  struct KeyCase {
    std::wstring_view file;
    std::string_view message;
  };
  for (const auto& [file, message] :
       {KeyCase{L"fixtures\\other-public.pem", "The update manifest signature is invalid."},
        KeyCase{L"fixtures\\short-public.pem", "The update key or signature does not use RSA-3072."},
        KeyCase{L"fixtures\\curve-public.pem", "The public key is not an RSA key."},
        KeyCase{L"development-key\\private.pem", "The file does not hold one public key in PEM form."},
        KeyCase{L"missing.pem", "Could not open file: "}}) {
    const HelperResult wrong = verify(file);
    EXPECT_EQ(wrong.exit_code, 1u);
    ExpectSays(wrong, message);
  }
  WriteTestFile(out + L"\\manifest.txt", release.ManifestText() + "\n");
  ExpectSays(verify(L"development-key\\public.pem"), "The update manifest signature is invalid.");
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
    const HelperResult result = Publish(line);
    EXPECT_EQ(result.exit_code, 2u) << result.console;
    ExpectSays(result, "TalvexPublish.exe --help");
  }
  EXPECT_FALSE(MayExist(out));
  EXPECT_EQ(Publish({L"--help"}).exit_code, 0u);
}

}  // namespace
}  // namespace talvex::test
