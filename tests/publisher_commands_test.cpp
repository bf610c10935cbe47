// The commands of TalvexPublish.exe that are no judgement of a release: status, key, and the command line.

#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "core/owned_handle.h"
#include "tests/support/publisher_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

TEST_F(Publisher, TellsTheStatusOfAClientDirectory) {
  const TestRelease release = GoodRelease();
  InstallTestRelease(release, client);
  const Words words = {L"status", client, L"--key", kKeyFile};
  Publish(words, 0, {"Installed release=2.0 sequence=20 files=3", "OK: every file is that of the release"});
  WriteTestFile(client + L"\\data\\X.bin", "edited");
  DeleteFileW((client + L"\\Talvex.exe").c_str());
  WriteTestFile(client + L"\\.talvex-update\\previous\\rollback.journal", "cut");
  MakeTestDirectory(client + L"\\.talvex-update\\stage");
  WriteTestFile(client + L"\\TalvexUpdateFailure.dat", HexDigestOf("failed") + "\n");
  WriteTestFile(client + L"\\.talvex-update~damaged", "");
  WriteTestFile(client + L"\\.talvex-update~attempts", "");
  WriteTestFile(client + L"\\.talvex-update~lock", "left by a power cut");
  const std::string said = Publish(
      words, 1,
      {".talvex-update~attempts: counts installations",
       "data\\X.bin: is not the file of the installed release.", "Talvex.exe: is missing.",
       "previous\\rollback.journal: The update rollback journal has an invalid encoding. The update cannot",
       ".talvex-update\\stage: is left of an update", ".talvex-update~damaged: says that files",
       "the release with manifest-sha256 " + HexDigestOf("failed")});
  EXPECT_EQ(said.find(".talvex-update~lock"), std::string::npos);
  const OwnedHandle lock(CreateFileW((client + L"\\.talvex-update~lock").c_str(), GENERIC_READ | DELETE, 0,
                                     nullptr, OPEN_EXISTING, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  Publish(words, 1, {".talvex-update~lock: is held by a client or helper"});
  Publish(
      {L"status", client, L"--key", kKeyFile, L"--json"}, 1,
      {R"({"command":"status","release":"2.0","sequence":"20",)",
       R"(,"failedManifestSha256":")" + HexDigestOf("failed") + R"(","ok":false,"findings":[{"severity":")",
       R"({"severity":"error","subject":"Talvex.exe","message":"is missing.)"});
  WriteTestFile(client + L"\\.talvex-update-cache\\manifest.sig", "no signature");
  Publish(words, 1,
          {".talvex-update-cache: The update key or signature does not use RSA-3072. No installed",
           "name the public half of that one with --key."});
  DeleteFileW((client + L"\\TalvexUpdateState.dat").c_str());
  Publish(words, 1, {"TalvexUpdateState.dat: is missing: no update was ever finished here."});
  const std::wstring other = scratch / L"other";
  InstallTestRelease(release, other);
  WriteTestFile(other + L"\\.talvex-update", "no directory");
  Publish({L"status", other, L"--key", kKeyFile}, 1, {".talvex-update: Could not list the directory"});
}

TEST_F(Publisher, ExportsThePublicKeyAndNoOther) {
  Publish({L"key", kKeyFile, L"--out", out}, 1, {"does not exist. Make this directory first."});
  MakeTestDirectory(out);
  Publish({L"key", kKeyFile, L"--out", out}, 0, {"blob-sha256 "});
  EXPECT_EQ(ReadTestFile(out + L"\\publisher_key.pem"), ReadTestFile(kKeyFile));
  EXPECT_NE(
      ReadTestFile(out + L"\\publisher_key.h").find("[411] = {\n    0x52, 0x53, 0x41, 0x31, 0x00, 0x0c,"),
      std::string::npos);
  Publish({L"key", kKeyFile, L"--out", out}, 1, {"publisher_key.pem: exists already."});
  const struct {
    std::wstring file;
    std::string says;
  } cases[] = {{L"fixtures\\short-public.pem", "does not have 3072 bits and the exponent 65537."},
               {L"fixtures\\curve-public.pem", "The public key is not an RSA key."},
               {L"development-key\\private.pem", "The file holds a private key."},
               {L"fixtures\\message.txt", "The file does not hold one public key in PEM form."},
               {L"missing.pem", "Could not open file: "}};
  for (const auto& c : cases) {
    Publish({L"key", BuiltProgram(c.file), L"--out", out}, 1, {c.says});
  }
}

TEST_F(Publisher, TellsWhatIsWrongWithACommandLine) {
  const struct {
    Words words;
    std::string says;
    DWORD exit_code = 2;
  } cases[] = {
      {{}, "A subcommand is required"},
      {{L"publish"}, "There is no such command or option: publish"},
      {{L"verify", out}, "--key is required"},
      {{L"verify", out, L"--kee", kKeyFile}, "There is no such command or option: --kee"},
      {{L"verify", L"/srv/release", L"--key", kKeyFile}, "/srv/release: ", 1},
      {{L"release", client, L"--out", out, L"--key", kKeyFile, L"--sequence=0", L"--name=1"},
       "--sequence: needs a"},
      {{L"release", client, L"--out", out, L"--key", kKeyFile, L"--sequence=1", L"--name=1."},
       "--name: needs 1 to 64"},
      {{L"verify", L"\xd800", L"--key", kKeyFile}, "A word of the command line is not valid Unicode."},
      {{L"--version"}, "1.0.0", 0},
      {{L"-h"}, "Usage: TalvexPublish.exe [OPTIONS] SUBCOMMAND", 0},
      {{L"release", L"--help"}, "--sequence", 0},
  };
  for (const auto& c : cases) {
    Publish(c.words, c.exit_code, {c.says});
  }
}

}  // namespace
}  // namespace talvex::test
