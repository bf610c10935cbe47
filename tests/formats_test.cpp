#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/sha256.h"
#include "core/text_encoding.h"
#include "formats/apply_plan.h"
#include "formats/installed_state.h"
#include "formats/manifest.h"
#include "formats/relative_path.h"
#include "formats/text_lines.h"
#include "formats/verified_cache.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

// What the formats refuse is tried in hostile_input_test; paths, which everything rests on, are spelled out
// here as well.

constexpr wchar_t kUnsafePath[] = L"The update manifest contains an unsafe relative path.";
constexpr wchar_t kOutsideAscii[] = L"The update manifest path is outside the supported ASCII file-name set.";
constexpr wchar_t kUnsafeSegment[] = L"The update manifest contains an unsafe path segment.";
constexpr wchar_t kPathUpdaterState[] = L"The update manifest path targets updater state.";

TEST(RelativePaths, AreAcceptedOrNameTheBrokenRule) {
  const std::string segment(100, 's');
  const struct {
    std::string text;
    std::wstring message;  // L"": accepted
  } cases[] = {
      {"a/b.txt", L""},
      {"A/B.TXT", L""},
      {".hidden", L""},
      {"a.b.c", L""},
      {segment + "/" + segment + "/12345678901234567.", kUnsafeSegment},
      {segment + "/" + segment + "/123456789012345678", L""},           // 220 bytes
      {segment + "/" + segment + "/1234567890123456789", kUnsafePath},  // 221
      {segment + "s", kUnsafeSegment},                                  // 101 in a segment
      {"", kUnsafePath},
      {"/a", kUnsafePath},
      {"a/", kUnsafePath},
      {"a\\b", kUnsafePath},
      {"a\tb", kUnsafePath},
      {"a b.txt", kOutsideAscii},
      {"a+b", kOutsideAscii},
      {"a:b", kOutsideAscii},
      {"\xC3\xBC.txt", kOutsideAscii},
      {std::string("a\0b", 3), kOutsideAscii},
      {"a//b", kUnsafeSegment},
      {".", kUnsafeSegment},
      {"..", kUnsafeSegment},
      {"a/../b", kUnsafeSegment},
      {"x/./y", kUnsafeSegment},
      {"name.", kUnsafeSegment},
      {"...", kUnsafeSegment},
      {"con", kUnsafeSegment},
      {"aux.dat", kUnsafeSegment},
      {"Nul.tar.gz", kUnsafeSegment},
      {"dir/com3.bin", kUnsafeSegment},
      {"LPT9/x", kUnsafeSegment},
      {"com0", L""},  // only 1 to 9 are devices
      {"com10", L""},
      {"lpt10", L""},
      {"CONSOLE", L""},
      {"CONS.txt", L""},
      {"TalvexUpdateState.dat", kPathUpdaterState},
      {"talvexupdatestate.dat.new.tmp", kPathUpdaterState},  // matched by its beginning
      {"TalvexUpdateFailure.dat", kPathUpdaterState},
      {"talvexupdatefailure.dat.new", kPathUpdaterState},
      {"talvexupdatefailure.dat.new.tmp", L""},  // matched whole
      {".TALVEX-UPDATE", kPathUpdaterState},
      {".talvex-update/x", kPathUpdaterState},
      {".talvex-update-cache", kPathUpdaterState},
      {".talvex-update-cache/manifest.txt", kPathUpdaterState},
      {".talvex-update2", L""},
      {"talvexupdatestate.dat2", L""},
      {"x/talvexupdatestate.dat", L""},
  };
  for (const auto& c : cases) {
    UpdateError error;
    std::wstring normalised = L"left over";
    EXPECT_EQ(ValidateRelativePath(c.text, normalised, error), c.message.empty()) << c.text;
    EXPECT_EQ(error.Message(), c.message) << c.text;
    std::wstring expected = c.message.empty() ? Utf8ToWide(c.text) : L"";
    std::replace(expected.begin(), expected.end(), L'/', L'\\');
    EXPECT_EQ(normalised, expected);
  }
}

const std::string kManifestHead = "TALVEX-UPDATE-V1\nrelease\t1.0\nsequence\t42\n";

std::string Row(std::string_view size, std::string_view path) {
  return "file\t" + std::string(size) + "\t" + std::string(64, 'a') + "\t" + std::string(path) + "\n";
}

// `row` with each "#" replaced by the number of its repetition.
std::string Rows(std::size_t count, const std::string& row) {
  std::string rows;
  for (std::size_t i = 0; i < count; ++i) {
    std::string numbered = row;
    numbered.replace(numbered.find('#'), 1, std::to_string(i));
    rows += numbered;
  }
  return rows;
}

TEST(Manifests, AreWrittenAsTheyAreRead) {
  const std::string text = kManifestHead + Row("7", "Data/A.txt") + Row("8589934592", "b");
  Manifest manifest;
  UpdateError error;
  ASSERT_TRUE(ParseManifest(AsBytes(text), manifest, error));
  EXPECT_EQ(manifest.release, "1.0");
  EXPECT_EQ(manifest.sequence, 42u);
  EXPECT_EQ(WideToUtf8(DigestToHex(manifest.digest)), HexDigestOf(text));
  ASSERT_EQ(manifest.entries.size(), 2u);
  EXPECT_EQ(manifest.entries[0].path, "Data/A.txt");
  EXPECT_EQ(manifest.entries[0].normalised_path, L"Data\\A.txt");
  EXPECT_EQ(manifest.entries[1].size, 8'589'934'592u);
  EXPECT_EQ(FormatManifest(manifest), text);
  EXPECT_EQ(FindManifestEntry(manifest, L"Data\\A.txt"), &manifest.entries[0]);
  EXPECT_EQ(FindManifestEntry(manifest, L"data\\A.txt"), nullptr);
  EXPECT_EQ(FindManifestEntryIgnoringCase(manifest, L"data\\a.TXT"), &manifest.entries[0]);
}

// The time that this thread has had so far; the machine may be busy with other tests.
std::uint64_t ThreadTimeMs() {
  FILETIME created;
  FILETIME exited;
  FILETIME kernel;
  FILETIME user;
  GetThreadTimes(GetCurrentThread(), &created, &exited, &kernel, &user);
  const std::uint64_t units = (std::uint64_t{user.dwHighDateTime} << 32 | user.dwLowDateTime) +
                              (std::uint64_t{kernel.dwHighDateTime} << 32 | kernel.dwLowDateTime);
  return units / 10'000;
}

// At the limits of both formats a parse takes milliseconds; a quadratic step would take seconds.
TEST(Manifests, AreParsedQuicklyAtTheirLimits) {
  const std::string name(90, 'n');
  const std::string manifest_text = kManifestHead + Rows(1024, Row("1", name + "/" + name + "/#"));
  const std::string plan_text = "TALVEX-APPLY-V1\nmanifest-sha256\t" + HexDigestOf(manifest_text) + "\n" +
                                Rows(1024, "file\t" + name + "/" + name + "/#\n");
  const std::uint64_t start = ThreadTimeMs();
  Manifest manifest;
  UpdateError error;
  std::vector<const ManifestEntry*> install;
  std::vector<const ManifestEntry*> retire;
  ASSERT_TRUE(ParseManifest(AsBytes(manifest_text), manifest, error));
  ASSERT_TRUE(ParseApplyPlan(AsBytes(plan_text), manifest, nullptr, manifest.digest, install, retire, error));
  EXPECT_LT(ThreadTimeMs() - start, 500u);
  EXPECT_EQ(install.size(), 1024u);
}

TEST(ReleaseOrder, ComparesSequencesAndThenDigests) {
  constexpr wchar_t kOlder[] = L"The update server offered an older release. The update was rejected.";
  constexpr wchar_t kChanged[] = L"The update server changed a release without increasing its sequence.";
  struct {
    bool trusted;
    std::uint64_t installed, offered;
    bool same_digest;
    const wchar_t* message;
  } const cases[] = {
      {true, 5, 6, false, L""},
      {true, 5, 5, true, L""},
      {true, 5, 5, false, kChanged},
      {true, 5, 4, true, kOlder},
      {true, 4'294'967'296, 4'294'967'295, false, kOlder},
      {true, 4'294'967'295, 4'294'967'296, false, L""},
      {false, 5, 4, false, L""},
  };
  for (const auto& c : cases) {
    InstalledState state;
    state.present = c.trusted;
    state.sequence = c.installed;
    Manifest offered;
    offered.sequence = c.offered;
    offered.digest.bytes.back() = c.same_digest ? 0 : 1;
    UpdateError error;
    EXPECT_EQ(CheckReleaseOrder(state, offered, error), *c.message == L'\0');
    EXPECT_EQ(error.Message(), c.message);
  }
}

// Whatever spelling a plan has, the entries are the manifests', new before retired.
TEST(ApplyPlans, NameEntriesOfTheSignedManifests) {
  const TestRelease new_release{"2", 2, {{"A.dll", "2"}, {"data/b", "2"}, {"c", "2"}}};
  const Manifest new_manifest = new_release.Parsed();
  const Manifest old_manifest = TestRelease{"1", 1, {{"a.dll", "1"}, {"old/X.bin", "1"}}}.Parsed();
  const std::string head =
      "TALVEX-APPLY-V1\nmanifest-sha256\t" + HexDigestOf(new_release.ManifestText()) + "\n";
  const std::string plan = head + "file\ta.DLL\ndelete\tOLD/x.bin\nfile\tc\n";
  std::vector<const ManifestEntry*> install;
  std::vector<const ManifestEntry*> retire;
  UpdateError error;
  ASSERT_TRUE(ParseApplyPlan(AsBytes(plan), new_manifest, &old_manifest, new_manifest.digest, install, retire,
                             error));
  EXPECT_EQ(install, (std::vector{&new_manifest.entries[0], &new_manifest.entries[1]}));
  EXPECT_EQ(retire, std::vector{&old_manifest.entries[1]});
  EXPECT_EQ(FormatApplyPlan(new_manifest.digest, install, retire),
            head + "file\tA.dll\nfile\tc\ndelete\told/X.bin\n");
}

}  // namespace
}  // namespace talvex::test
