// TalvexPublish.exe, run as release engineers run it: each mistake is made, and the sentence that names it
// and the remedy is expected.

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "tests/support/publisher_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

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
  return Replaced(program, ModulusOf(kDevelopmentKey), ModulusOf(kOtherKey));
}

// The blob of a key in a program that trusts it: its header and exponent, and the modulus.
std::string BlobOf(const std::string& program, const std::wstring& key_folder) {
  return program.substr(program.find(ModulusOf(key_folder)) - 27, 411);
}

// What both programs of the build say, in words of the same length.
std::string WithoutLevel(const std::string& program) {
  return Replaced(program, "requestedExecutionLevel", "requestedExecutionLeveX");
}

// The client holds its key as PEM text.
const std::string kOtherClient = Replaced(kClient, ReadTestFile(kKeyFile), ReadTestFile(kOtherKeyFile));
const std::string kClientOfDll = ReadTestFile(BuiltProgram(L"TalvexSettle.exe"));
const std::string kDll = ReadTestFile(BuiltProgram(L"TalvexUpdate.dll"));
constexpr std::string_view kX86 = {"PE\0\0\x4c\x01", 6};

// A program with the processor `machine` and the kind `magic` in its headers.
std::string WithHeaders(std::string program, std::uint16_t machine, std::uint16_t magic) {
  const std::size_t header = program.find(kX86);
  std::memcpy(program.data() + header + 4, &machine, sizeof(machine));
  std::memcpy(program.data() + header + 24, &magic, sizeof(magic));
  return program;
}

std::string For64Bits(const std::string& program) {
  return WithHeaders(program, IMAGE_FILE_MACHINE_AMD64, IMAGE_NT_OPTIONAL_HDR64_MAGIC);
}

const Words kUnchecked = {L"--allow-development", L"--client-key-elsewhere", L"--allow-warnings"};
const Words kDevelopment = {L"--allow-development"};
const Words kBothKeys = {L"--allow-development", L"--client-key", kOtherKeyFile};

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
  WriteTestFile(scratch / L"wrong.sig", SignWithKey(release.ManifestText(), kOtherKey));
  WriteTestFile(scratch / L"right.sig", release.Signature());
  const auto finish = [&](std::wstring_view signature, const std::string& text, DWORD exit_code) {
    Publish({L"finish", out, L"--signature", scratch / signature, L"--key", kKeyFile, L"--allow-development"},
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
                       L"\x009f[31m\x2028\x202e.txt",
                       std::wstring(90, L'd') + L"\\" + std::wstring(77, L'k'),
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
  MakeSparseFile(client + L"\\largest.bin", 8'589'934'592);
  MakeTestDirectory(scratch / L"elsewhere");
  MakeJunction(client + L"\\junction", scratch / L"elsewhere");
  const std::string said = Publish(
      ReleaseWords(), 1,
      {"empty.txt: is empty", "with blank.txt: The update manifest path is outside the supported ASCII",
       R"(\u009f[31m\u2028\u202e.txt: The update manifest path is outside the supported ASCII)",
       "first.bin: has more than one hard link", "second.bin: has more than one hard link",
       "huge.bin: is larger than 8 GiB", "ss: The update manifest contains an unsafe path segment",
       "ee: is too long a path to be staged", "gg\\h: is too long a path to be staged",
       "junction: is a link"});
  for (const char* const good : {"fine.txt", "largest.bin", "kk"}) {
    EXPECT_EQ(said.find(good), std::string::npos) << good;
  }
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
    {"Helper.exe: holds more than one key", {{kHelperName, kHelper + BlobOf(kHelper, kDevelopmentKey)}}},
    {"Helper.exe: is not the update helper", {{kHelperName, kClient}}},
    {"Talvex.exe: is the update helper under another name", {{kClientName, kHelper}}},
    {"TalvexUpdate.dll: is missing from the top of the release",
     {{kClientName, kClientOfDll}},
     {},
     kUnchecked},
    {"OK", {{kClientName, kClientOfDll}, {"TalvexUpdate.dll", kDll}}, {}, kUnchecked},
    {"TalvexUpdate.dll: is not a DLL for the same kind of processor",
     {{"TalvexUpdate.dll", For64Bits(kDll)}},
     {},
     kUnchecked},
    {"TalvexUpdate.dll: is not a DLL for the same kind of processor",
     {{kClientName, kClientOfDll}, {"TalvexUpdate.dll", For64Bits(kDll)}},
     {},
     kUnchecked},
    {"Talvex.exe: does not hold the key", {{kClientName, kOtherClient}}},
    {"OK", {{kClientName, kOtherClient}}, {}, {L"--allow-development", L"--client-key-elsewhere"}},
    {"OK", {{kClientName, kOtherClient + ReadTestFile(kKeyFile)}}, {}, kBothKeys},
    {"warning: Talvex.exe: holds another public key, with the blob-sha256 ",
     {{kClientName, kClient + ReadTestFile(kOtherKeyFile)}}},
    {"warning: Talvex.exe: holds another public key, with the blob-sha256 ",
     {{kClientName, kClient + BlobOf(TrustingOther(kHelper), kOtherKey)}}},
    {"Talvex.exe: does not hold the key", {{kClientName, kOtherClient + ReadTestFile(kOtherKeyFile)}}},
    {"OK", {{kClientName, kClient + ReadTestFile(kOtherKeyFile)}}, {}, kBothKeys},
    {"Talvex.exe: could follow no release that is signed with the other key", {}, {}, kBothKeys},
    {"public.pem: is the key that signs the release.",
     {},
     {},
     {L"--allow-development", L"--client-key", kKeyFile}},
    {"Talvex.exe: asks for elevation", {{kClientName, Replaced(kClient, "asInvoker", "highestAv")}}},
    {"Talvex.exe: asks for elevation",
     {{kClientName, Replaced(kClient, R"(uiAccess="false")", R"(uiAccess="true" )")}}},
    {"Talvex.exe: asks for elevation",
     {{kClientName, ReadTestFile(BuiltProgram(L"tests\\two_manifests.bin"))}},
     {},
     kUnchecked},
    {"Talvex.exe: has a manifest that is cut short",
     {{kClientName, Replaced(kClient, "</assembly>", "</assemblX>")}}},
    {"Helper.exe: has no requestedExecutionLevel and a", {{kHelperName, WithoutLevel(kHelper)}}},
    {"Helper.exe: has no requestedExecutionLevel and a",
     {{kHelperName, Replaced(kHelper, "<requestedExecutionLevel", "<!-- requestedExecutionL")}}},
    {"warning: Talvex.exe: has no requestedExecutionLevel, so", {{kClientName, WithoutLevel(kClient)}}},
    {"OK", {{kClientName, WithoutLevel(kClient)}}, {}, {L"--allow-development", L"--allow-warnings"}},
    {"Helper.exe: is not a 32-bit program (x86)", {{kHelperName, For64Bits(kHelper)}}},
    {"Talvex.exe: is not a program", {{kClientName, WithHeaders(kClient, IMAGE_FILE_MACHINE_I386, 0x107)}}},
    {"Talvex.exe: is not a program",
     {{kClientName, WithHeaders(kClient, IMAGE_FILE_MACHINE_ARM, IMAGE_NT_OPTIONAL_HDR32_MAGIC)}}},
    {"Talvex.exe: is not a program",
     {{kClientName, WithHeaders(kClient, IMAGE_FILE_MACHINE_I386, IMAGE_NT_OPTIONAL_HDR64_MAGIC)}}},
    {"Talvex.exe: is not a program", {{kClientName, kClient.substr(0, kClient.size() / 2)}}},
    {"TalvexUpdateHelper.exe: is not a program that Windows can start", {{kHelperName, "MZ"}}},
    {"Talvex.exe: is missing from the top of the release.", {{kClientName, ""}}},
    {"Helper.exe: has to be spelled exactly so; the release has it as talvexupdatehelper.exe.",
     {{kHelperName, ""}, {"talvexupdatehelper.exe", kHelper}}},
    {"sequence 18446744073709551615: is the last one there is", {}, {}, kDevelopment, ~0ull},
    {"warning: sequence 9223372036854775808: leaves few", {}, {}, kDevelopment, 1ull << 63},
    {"OK", {}, {}, kDevelopment, (1ull << 63) - 1},
    {"Data: is the path of a file and of a directory.", {{"Data", "cannot be"}}, {{"Data", ""}}},
    {"warning: 42 characters are all", {{std::string(99, 'a') + "/" + std::string(30, 'b'), "1"}}},
    {"manifest signature is invalid. Name the public half", {}, {}, {L"--key", kOtherKeyFile}},
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
      words.insert(words.end(), {L"--key", kKeyFile});
    }
    words.insert(words.end(), mistake.options.begin(), mistake.options.end());
    Publish(words, mistake.sentence.starts_with("OK") ? 0 : 1, {mistake.sentence});
  }
}

TEST_F(Publisher, VerifiesTheSizeOfAProgramAsWell) {
  const TestRelease release = GoodRelease();
  Write(release, release.files, out);
  const std::string size = std::to_string(kClient.size());
  const std::string manifest = Replaced(release.ManifestText(), "\t" + size + "\t", "\t1" + size + "\t");
  WriteTestFile(out + L"\\manifest.txt", manifest);
  WriteTestFile(out + L"\\manifest.sig", SignWithKey(manifest));
  Publish({L"verify", out, L"--key", kKeyFile, L"--allow-development"}, 1,
          {"Talvex.exe: is not the file that the manifest describes."});
}

struct Step {
  std::string sentence;  // the new release is accepted if it begins with "OK"
  Files new_edits = {};
  Files old_edits = {};
  std::string new_name = "2.0";
  std::string old_name = "1.9";
  std::uint64_t sequence = 20;
  std::wstring old_signing_key = kDevelopmentKey;
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
     kOtherKey},
    {"1.9: old.txt: in the old release, but not in the new one.", {}, {}, "2.0", "1.9", 20, kOtherKey},
    {"OK release=2.0", {{"old.txt", "carried"}}, {}, "2.0", "1.9", 20, kOtherKey},
    {"old: has a client that holds the key with the blob-sha256",
     {},
     {{kClientName, kClient + ReadTestFile(kOtherKeyFile)}}},
    {"OK",
     {{kClientName, kClient + ReadTestFile(kOtherKeyFile)}},
     {{kClientName, ReadTestFile(kOtherKeyFile) + kClient}}},
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
    Write(new_release, {{kClientName, new_release.files[kClientName]}}, directory + L"new");
    Write(old_release, {{kClientName, old_release.files[kClientName]}}, directory + L"old",
          step.old_signing_key);
    Publish(
        {L"compare", directory + L"new", L"--old-key", kOtherKeyFile, directory + L"old", L"--key", kKeyFile},
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
  Words words = {L"compare", out, scratch / L"old", scratch / L"older", L"--key", kKeyFile};
  const std::string said = Publish(words, 1, {"Could not open file: ", "With --unsigned, the new"});
  EXPECT_EQ(said.find("Name the public half"), std::string::npos) << "the key is not what is wrong";
  words.push_back(L"--unsigned");
  Publish(words, 0,
          {"OK release=2.0 sequence=20 files=3 (not signed yet)\r\nfrom release=1.9",
           "new=0 changed=0 retired=0 download=" + std::to_string(kHelper.size()), "\r\nfrom release=1.8"});
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

}  // namespace
}  // namespace talvex::test
