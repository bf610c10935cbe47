// TalvexPublish.exe, run as release engineers run it: each mistake is made, and the sentence that names it
// and the remedy is expected.

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "tests/support/helper_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

using Words = std::vector<std::wstring>;
using Files = std::map<std::string, std::string>;  // path -> contents; in an edit, "" removes the file

const std::wstring kKey = BuiltProgram(L"development-key\\public.pem");
const std::wstring kOtherKey = BuiltProgram(L"fixtures\\other-key\\public.pem");
const std::wstring kSigningKey = L"development-key";
const std::wstring kOtherSigningKey = L"fixtures\\other-key";
const std::string kClientName = "Talvex.exe";
const std::string kHelperName = "TalvexUpdateHelper.exe";
const std::string kClient = ReadTestFile(BuiltProgram(L"Talvex.exe"));
const std::string kHelper = ReadTestFile(BuiltProgram(L"TalvexUpdateHelper.exe"));
const std::string kX(1'500'000, 'x');

// The modulus of a key as a CNG blob holds it, big-endian: 384 bytes, which the private blob has
// little-endian.
std::string ModulusOf(const std::wstring& key_folder) {
  std::string modulus = ReadTestFile(key_folder + L"\\private.blob").substr(20, 384);
  std::ranges::reverse(modulus);
  return modulus;
}

std::string Replaced(std::string text, std::string_view old_text, std::string_view new_text) {
  const std::size_t position = text.find(old_text);
  return position == std::string::npos ? "" : text.replace(position, old_text.size(), new_text);
}

// A program with the other key in place of its own.
std::string TrustingOther(const std::string& program) {
  return Replaced(program, ModulusOf(kSigningKey), ModulusOf(kOtherSigningKey));
}

// What both programs of the build say, in words of the same length.
std::string WithoutLevel(const std::string& program) {
  return Replaced(program, "requestedExecutionLevel", "requestedExecutionLeveX");
}

// The client holds its key as PEM text.
const std::string kOtherClient = Replaced(kClient, ReadTestFile(kKey), ReadTestFile(kOtherKey));
const Words kDevelopment = {L"--allow-development"};
const Words kBothKeys = {L"--allow-development", L"--client-key", kOtherKey};

TestRelease GoodRelease() {
  return {"2.0", 20, {{kClientName, kClient}, {kHelperName, kHelper}, {"data/X.bin", kX}}};
}

void Edit(Files& files, const Files& edits) {
  for (const auto& [path, contents] : edits) {
    if (contents.empty()) {
      files.erase(path);
    } else {
      files[path] = contents;
    }
  }
}

// Small files with paths of `length` characters that end in consecutive numbers of four digits.
Files LongPaths(int first, int count, std::size_t length) {
  Files files;
  for (int i = first; i < first + count; ++i) {
    files[std::string(70, 'p') + "/" + std::string(length - 75, 'q') + std::to_string(i)] = "1";
  }
  return files;
}

class Publisher : public testing::Test {
 protected:
  // Runs the program, expects its exit code and each of the texts, and returns all that it says.
  static std::string Publish(const Words& words, DWORD exit_code, const std::vector<std::string>& texts) {
    const HelperResult result = RunHelper(BuiltProgram(L"TalvexPublish.exe"), words, {});
    EXPECT_EQ(result.exit_code, exit_code) << result.console;
    for (const std::string& text : texts) {
      EXPECT_NE(result.console.find(text), std::string::npos) << "not said: " << text << "\n"
                                                              << result.console;
    }
    return result.console;
  }
  [[nodiscard]] Words ReleaseWords() const {
    return {L"release", client, L"--out", out, L"--name", L"2.0-beta", L"--sequence", L"12", L"--key", kKey};
  }
  // Puts a signed manifest where a web server would have it, and files beside it.
  static void Write(const TestRelease& release, const Files& files, const std::wstring& directory,
                    const std::wstring& signing_key = kSigningKey) {
    WriteTestFile(directory + L"\\manifest.txt", release.ManifestText());
    WriteTestFile(directory + L"\\manifest.sig", SignWithKey(release.ManifestText(), signing_key));
    for (const auto& [path, contents] : files) {
      WriteTestFile(directory + L"\\files\\" + Utf8ToWide(path), contents);
    }
  }

  ScratchDirectory scratch;
  std::wstring client = scratch / L"client";
  std::wstring out = scratch / L"out";
};

TEST_F(Publisher, MakesAndFinishesAReleaseWithoutTheUpdatersOwnFiles) {
  TestRelease release = GoodRelease();
  release.name = "2.0-beta";
  release.sequence = 12;
  release.files["a/TalvexUpdateState.dat"] = "not at the top: a file like any other";
  release.files["a.b"] = "sorted before a/ byte by byte";
  InstallTestRelease(release, client);  // with its state and cache
  WriteTestFile(client + L"\\.talvex-update\\previous\\files\\a", "old");
  Words words = ReleaseWords();
  const Tree before = ReadTree(scratch.Path());
  Publish(words, 1, {"TalvexUpdateHelper.exe: was built with a development key"});
  EXPECT_EQ(TreeDifference(ReadTree(scratch.Path()), before), "");  // although it was copied before
  words.push_back(L"--allow-development");
  Publish(
      words, 0,
      {"Made release=2.0-beta sequence=12 files=5", "manifest-sha256 " + HexDigestOf(release.ManifestText()),
       "Left out, as it is the updater's own: .talvex-update-cache"});
  WriteTestFile(scratch / L"wrong.sig", SignWithKey(release.ManifestText(), kOtherSigningKey));
  WriteTestFile(scratch / L"right.sig", release.Signature());
  const auto finish = [&](std::wstring_view signature, const std::string& text, DWORD exit_code) {
    Publish({L"finish", out, L"--signature", scratch / signature, L"--key", kKey, L"--allow-development"},
            exit_code, {text});
  };
  finish(L"wrong.sig", "The update manifest signature is invalid.", 1);
  EXPECT_FALSE(MayExist(out + L"\\manifest.sig"));
  finish(L"right.sig", "Finished release=2.0-beta sequence=12 files=5", 0);
  finish(L"right.sig", "manifest.sig: exists already. To replace it, delete it first.", 1);
  Write(release, release.files, scratch / L"expected");
  EXPECT_EQ(TreeDifference(ReadTree(out), ReadTree(scratch / L"expected")), "");
  Publish(words, 1, {"out: exists already. A release is never written over"});
}

TEST_F(Publisher, NamesEverythingThatNoReleaseCanCarryAndWritesNothing) {
  const Words paths = {L"fine.txt",
                       L"with blank.txt",
                       L"\x009b[31m\x202e.txt",
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
  const std::string said = Publish(
      ReleaseWords(), 1,
      {"empty.txt: is empty", "with blank.txt: The update manifest path is outside the supported ASCII",
       "\\u009b[31m\\u202e.txt: The update manifest path is outside the supported ASCII",
       "first.bin: has more than one hard link", "second.bin: has more than one hard link",
       "huge.bin: is larger than 8 GiB", "ss: The update manifest contains an unsafe path segment",
       "ee: is too long a path to be staged", "gg\\h: is too long a path to be staged",
       "junction: is a link"});
  EXPECT_EQ(said.find("fine.txt"), std::string::npos);
  Words inside = ReleaseWords();
  inside[3] = client + L"\\Out";
  Publish(inside, 1, {"lies inside the client directory"});
  EXPECT_FALSE(MayExist(out));
}

struct Mistake {
  std::string sentence;  // the release is accepted if it begins with "OK"
  Files edits = {};      // made before the release was described and signed
  Files spoilt = {};     // made on disk afterwards
  Words options = kDevelopment;
  std::uint64_t sequence = 20;
};

const Mistake kMistakes[] = {
    {"OK release=2.0 sequence=20 files=3"},
    {"TalvexUpdateHelper.exe: was built with a development key", {}, {}, {}},
    {"error: Talvex.exe: was built with a development key", {}, {}, {}},
    {"Talvex.exe.manifest: is a manifest that Windows may obey", {{"talvex.exe.manifest", "1"}}},
    {"Helper.exe.manifest: is a manifest that", {{"TalvexUpdateHelper.exe.manifest", "1"}}},
    {"Helper.exe: trusts another key", {{kHelperName, TrustingOther(kHelper)}}},
    {"Helper.exe: holds more than one key",
     {{kHelperName, kHelper + kHelper.substr(kHelper.find(ModulusOf(kSigningKey)) - 27, 411)}}},
    {"Talvex.exe: does not hold the key", {{kClientName, kOtherClient}}},
    {"OK", {{kClientName, kOtherClient}}, {}, {L"--allow-development", L"--client-key-elsewhere"}},
    {"OK", {{kClientName, kOtherClient + ReadTestFile(kKey)}}},
    {"Talvex.exe: does not hold the key", {{kClientName, kOtherClient + ReadTestFile(kOtherKey)}}},
    {"OK", {{kClientName, kClient + ReadTestFile(kOtherKey)}}, {}, kBothKeys},
    {"Talvex.exe: could follow no release that is signed with the other key", {}, {}, kBothKeys},
    {"public.pem: is the key that signs the release.",
     {},
     {},
     {L"--allow-development", L"--client-key", kKey}},
    {"Talvex.exe: asks for elevation", {{kClientName, Replaced(kClient, "asInvoker", "highestAv")}}},
    {"Helper.exe: has no requestedExecutionLevel and a", {{kHelperName, WithoutLevel(kHelper)}}},
    {"Helper.exe: has no requestedExecutionLevel and a",
     {{kHelperName, Replaced(kHelper, "<requestedExecutionLevel", "<!-- requestedExecutionL")}}},
    {"warning: Talvex.exe: has no requestedExecutionLevel, so", {{kClientName, WithoutLevel(kClient)}}},
    {"OK", {{kClientName, WithoutLevel(kClient)}}, {}, {L"--allow-development", L"--allow-warnings"}},
    {"Helper.exe: is not a 32-bit program (x86)",
     {{kHelperName, Replaced(kHelper, {"PE\0\0\x4c\x01", 6}, {"PE\0\0\x64\x86", 6})}}},
    {"Talvex.exe: is not a program", {{kClientName, kClient.substr(0, kClient.size() / 2)}}},
    {"TalvexUpdateHelper.exe: is not a program that Windows can start", {{kHelperName, "MZ"}}},
    {"Talvex.exe: is missing from the top of the release.", {{kClientName, ""}}},
    {"Helper.exe: has to be spelled exactly so; the release has it as talvexupdatehelper.exe.",
     {{kHelperName, ""}, {"talvexupdatehelper.exe", kHelper}}},
    {"sequence 18446744073709551615: is the last one there is", {}, {}, kDevelopment, ~0ull},
    {"warning: sequence 9223372036854775808: leaves few", {}, {}, kDevelopment, 1ull << 63},
    {"Data: is the path of a file and of a directory.", {{"Data", "cannot be"}}, {{"Data", ""}}},
    {"warning: 42 characters are all", {{std::string(99, 'a') + "/" + std::string(30, 'b'), "1"}}},
    {"manifest signature is invalid. Name the public half", {}, {}, {L"--key", kOtherKey}},
    {"data\\y.bin: is not in the manifest", {}, {{"data/y.bin", "1"}}},
    {"TalvexUpdateState.dat: is not in the manifest", {}, {{"TalvexUpdateState.dat", "1"}}},
    {R"(,"ok":false,"findings":[{"severity":"error","subject":"\u00e4.txt","message":")",
     {},
     {{"\xc3\xa4.txt", "1"}},
     {L"--json", L"--allow-development"}},
    {"data\\X.bin: is in the manifest, but not among the files.", {}, {{"data/X.bin", ""}}},
    {"data\\X.bin: is not the file that", {}, {{"data/X.bin", std::string(1'500'000, 'y')}}},
    {"Talvex.exe: is not the file that the manifest describes.", {}, {{kClientName, "1"}}},
    {"data\\x.bin: is spelled otherwise in the manifest", {}, {{"data/X.bin", ""}, {"data/x.bin", kX}}},
};

TEST_F(Publisher, VerifiesThatPlayersCanLiveWithARelease) {
  for (const Mistake& mistake : kMistakes) {
    const std::wstring directory = scratch / std::to_wstring(&mistake - kMistakes);
    TestRelease release = GoodRelease();
    release.sequence = mistake.sequence;
    Edit(release.files, mistake.edits);
    Files files = release.files;
    Edit(files, mistake.spoilt);
    Write(release, files, directory);
    Words words = {L"verify", directory};
    if (mistake.options.empty() || mistake.options[0] != L"--key") {
      words.insert(words.end(), {L"--key", kKey});
    }
    words.insert(words.end(), mistake.options.begin(), mistake.options.end());
    Publish(words, mistake.sentence.starts_with("OK") ? 0 : 1, {mistake.sentence});
  }
}

struct Step {
  std::string sentence;  // the new release is accepted if it begins with "OK"
  Files new_edits = {};
  Files old_edits = {};
  std::string new_name = "2.0";
  std::string old_name = "1.9";
  std::uint64_t sequence = 20;
  std::wstring old_signing_key = kSigningKey;
};

const Step kSteps[] = {
    {"OK release=2.0 sequence=20 files=4\r\nfrom release=1.9 sequence=19 files=4: new=1 changed=1 retired=1 "
     "download=12 bytes plan=",
     {{"new.txt", "12345"}}},
    {"1.9: is this very release.", {{"old.txt", "1"}}, {{"data/X.bin", "changed"}}, "1.9", "1.9", 19},
    {"1.9: The update server offered an older release. The update was", {}, {}, "2.0", "1.9", 18},
    {"changed a release without increasing its sequence. Give the new", {}, {}, "2.0", "1.9", 19},
    {"warning: 1.9, sequence 19: is so much lower that few", {}, {}, "2.0", "1.9", 1ull << 55},
    {"warning: 1.9: has the same name", {}, {}, "1.9"},
    {"warning: 2.10: has a name that counts as a higher one", {}, {}, "2.9", "2.10"},
    {"warning: 2.0: has a name", {}, {}, "2.0-beta", "2.0"},
    {"OK release=2.010", {}, {}, "2.010", "2.10-beta"},
    {"warning: 1.9: data\\X.bin: only the case", {{"data/X.bin", ""}, {"Data/X.bin", "changed"}}},
    {"1.9: old.txt: a file in one of the releases", {{"OLD.txt/a", "1"}}},
    {"1.9: data: a file in one of the releases", {{"data/X.bin", ""}, {"data", "1"}}},
    {"warning: 1.9: no client can remove the retired files, so they stay for ever. The plan takes 3",
     LongPaths(1'000, 1'000, 150), LongPaths(3'000, 1'000, 150)},
    {"warning: 1.9: a client with all of its files damaged cannot", LongPaths(1'000, 1'000, 168),
     LongPaths(1'500, 1'020, 168)},
    {"warning: 1.9: the new release leaves the client directory's path 92", {{std::string(80, 'a'), "1"}}},
    {"is signed with another key, and its client does not hold the new one",
     {{"old.txt", "carried"}},
     {{kClientName, kOtherClient}},
     "2.0",
     "1.9",
     20,
     kOtherSigningKey},
    {"1.9: old.txt: in the old release, but not in the new one.", {}, {}, "2.0", "1.9", 20, kOtherSigningKey},
    {"OK release=2.0", {{"old.txt", "carried"}}, {}, "2.0", "1.9", 20, kOtherSigningKey},
};

TEST_F(Publisher, NamesWhatKeepsPlayersFromUpdating) {
  for (const Step& step : kSteps) {
    const std::wstring directory = scratch / std::to_wstring(&step - kSteps);
    TestRelease new_release = GoodRelease();
    TestRelease old_release = GoodRelease();
    new_release.name = step.new_name;
    new_release.sequence = step.sequence;
    new_release.files["data/X.bin"] = "changed";
    Edit(new_release.files, step.new_edits);
    old_release.name = step.old_name;
    old_release.sequence = 19;
    old_release.files["old.txt"] = "1";
    Edit(old_release.files, step.old_edits);
    Write(new_release, {}, directory + L"new");
    Write(old_release, {{kClientName, old_release.files[kClientName]}}, directory + L"old",
          step.old_signing_key);
    Publish({L"compare", directory + L"new", L"--old-key", kOtherKey, directory + L"old", L"--key", kKey},
            step.sentence.starts_with("OK") ? 0 : 1, {step.sentence});
  }
}

TEST_F(Publisher, ComparesBeforeTheKeySigns) {
  TestRelease old_release = GoodRelease();
  old_release.sequence = 19;
  old_release.name = "1.9";
  Write(old_release, {}, scratch / L"old");
  old_release.sequence = 18;
  old_release.name = "1.8";
  old_release.files["data/X.bin"] = "other";
  old_release.files["old.txt"] = "retired";
  Write(old_release, {}, scratch / L"older");
  Write(GoodRelease(), {}, out);
  DeleteFileW((out + L"\\manifest.sig").c_str());
  Words words = {L"compare", out, scratch / L"old", scratch / L"older", L"--key", kKey};
  const std::string said = Publish(words, 1, {"Could not open file: ", "With --unsigned, the new"});
  EXPECT_EQ(said.find("Name the public half"), std::string::npos) << "the key is not what is wrong";
  words.push_back(L"--unsigned");
  Publish(
      words, 0,
      {"OK release=2.0 sequence=20 files=3 (not signed yet)\r\nfrom release=1.9", "\r\nfrom release=1.8"});
  words.push_back(L"--json");
  Publish(words, 0,
          {R"({"command":"compare","release":"2.0","sequence":"20","manifestSha256":")" +
               HexDigestOf(GoodRelease().ManifestText()) + R"(","files":3,"bytes":)",
           R"(,"signed":false,"longestClientDirectory":)", R"(,"updates":[{"release":"1.9","sequence":"19",)",
           R"(},{"release":"1.8","sequence":"18",)",
           R"("new":0,"changed":1,"retired":1,"downloadBytes":1500000,"planBytes":)",
           R"(}],"ok":true,"findings":[]})"});
  words.pop_back();
  WriteTestFile(scratch / L"old\\manifest.sig", "no signature");
  Publish(words, 1, {"If it was signed with an earlier key, name"});
}

TEST_F(Publisher, TellsTheStatusOfAClientDirectory) {
  const TestRelease release = GoodRelease();
  InstallTestRelease(release, client);
  const Words words = {L"status", client, L"--key", kKey};
  Publish(words, 0, {"Installed release=2.0 sequence=20 files=3", "OK: every file is that of the release"});
  WriteTestFile(client + L"\\data\\X.bin", "edited");
  DeleteFileW((client + L"\\Talvex.exe").c_str());
  WriteTestFile(client + L"\\.talvex-update\\previous\\rollback.journal", "cut");
  MakeTestDirectory(client + L"\\.talvex-update\\stage");
  WriteTestFile(client + L"\\TalvexUpdateFailure.dat", HexDigestOf("failed") + "\n");
  WriteTestFile(client + L"\\.talvex-update~damaged", "");
  Publish(
      words, 1,
      {"data\\X.bin: is not the file of the installed release.", "Talvex.exe: is missing.",
       "previous\\rollback.journal: The update rollback journal has an invalid encoding. The update cannot",
       ".talvex-update\\stage: is left of an update", ".talvex-update~damaged: says that files",
       "the release with manifest-sha256 " + HexDigestOf("failed")});
  Publish(
      {L"status", client, L"--key", kKey, L"--json"}, 1,
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
  Publish({L"status", other, L"--key", kKey}, 1, {".talvex-update: Could not list the directory"});
}

TEST_F(Publisher, ExportsThePublicKeyAndNoOther) {
  Publish({L"key", kKey, L"--out", out}, 1, {"does not exist. Make this directory first."});
  MakeTestDirectory(out);
  Publish({L"key", kKey, L"--out", out}, 0, {"blob-sha256 "});
  EXPECT_EQ(ReadTestFile(out + L"\\publisher_key.pem"), ReadTestFile(kKey));
  EXPECT_NE(
      ReadTestFile(out + L"\\publisher_key.h").find("[411] = {\n    0x52, 0x53, 0x41, 0x31, 0x00, 0x0c,"),
      std::string::npos);
  Publish({L"key", kKey, L"--out", out}, 1, {"publisher_key.pem: exists already."});
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
      {{L"verify", out, L"--kee", kKey}, "There is no such command or option: --kee"},
      {{L"verify", L"/srv/release", L"--key", kKey}, "/srv/release: ", 1},
      {{L"release", client, L"--out", out, L"--key", kKey, L"--sequence=0", L"--name=1"},
       "--sequence: needs a"},
      {{L"release", client, L"--out", out, L"--key", kKey, L"--sequence=1", L"--name=1."},
       "--name: needs 1 to 64"},
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
