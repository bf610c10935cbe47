#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>

#include "core/owned_handle.h"
#include "core/publisher_key.h"
#include "core/sha256.h"
#include "core/text_encoding.h"
#include "formats/apply_plan.h"
#include "formats/failure_marker.h"
#include "formats/installed_state.h"
#include "formats/manifest.h"
#include "formats/relative_path.h"
#include "formats/rollback_journal.h"
#include "formats/text_lines.h"
#include "formats/verified_cache.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

const std::string kDigest(64, 'a');

std::string Repeat(std::size_t count, std::string_view text) {
  std::string repeated;
  for (std::size_t i = 0; i < count; ++i) {
    repeated += text;
  }
  return repeated;
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

// One text and the message with which it is refused; L"" means that it is accepted.
struct TextCase {
  std::string text;
  std::wstring message;
};

constexpr wchar_t kUnsafePath[] = L"The update manifest contains an unsafe relative path.";
constexpr wchar_t kOutsideAscii[] = L"The update manifest path is outside the supported ASCII file-name set.";
constexpr wchar_t kUnsafeSegment[] = L"The update manifest contains an unsafe path segment.";
constexpr wchar_t kPathUpdaterState[] = L"The update manifest path targets updater state.";

TEST(RelativePaths, AreAcceptedOrNameTheBrokenRule) {
  const std::string segment(100, 's');
  const TextCase cases[] = {
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
  for (const TextCase& c : cases) {
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

std::string Row(std::string_view size, std::string_view path, const std::string& digest = kDigest) {
  return "file\t" + std::string(size) + "\t" + digest + "\t" + std::string(path) + "\n";
}

TEST(Manifests, AreParsedStrictlyLineByLine) {
  const std::string row = Row("1", "a");
  constexpr wchar_t kNotText[] = L"The update manifest must be UTF-8 text with LF line endings.";
  constexpr wchar_t kHeader[] = L"The update manifest header is invalid.";
  constexpr wchar_t kRelease[] = L"The update manifest release is invalid.";
  constexpr wchar_t kSequence[] = L"The update manifest sequence is invalid.";
  constexpr wchar_t kRow[] = L"The update manifest contains an invalid file row.";
  constexpr wchar_t kData[] = L"The update manifest contains invalid file data.";
  const auto with_release = [&](const std::string& release) {
    return "TALVEX-UPDATE-V1\nrelease\t" + release + "\nsequence\t1\n" + row;
  };
  const auto with_sequence = [&](const std::string& sequence) {
    return "TALVEX-UPDATE-V1\nrelease\t1\nsequence\t" + sequence + "\n" + row;
  };
  std::string longest =
      kManifestHead;  // as many bytes as a manifest may have, in too few files to be refused
  longest += Row(std::string(4'194'304 - longest.size() - Row("", "a").size() - 1, '0') + "1", "a");
  const TextCase cases[] = {
      {kManifestHead + row, L""},
      {"", kNotText},
      {kManifestHead + row.substr(0, row.size() - 1), kNotText},
      {"TALVEX-UPDATE-V1\r\n" + row, kNotText},
      {kManifestHead + row + std::string("\0\n", 2), kNotText},
      {longest, L""},
      {longest + "\n", kNotText},
      {kManifestHead, kHeader},
      {"TALVEX-UPDATE-V2\n" + kManifestHead.substr(17) + row, kHeader},
      {"\xEF\xBB\xBF" + kManifestHead + row, kHeader},
      {with_release("1.0-beta_"), L""},
      {with_release(std::string(64, 'r')), L""},
      {with_release(std::string(65, 'r')), kRelease},
      {with_release("1.0."), kRelease},
      {with_release(".hidden"), kRelease},
      {with_release("-1"), kRelease},
      {with_release(""), kRelease},
      {with_release("1 0"), kRelease},
      {with_release("1\t"), kRelease},
      {with_sequence("00042"), L""},
      {with_sequence("18446744073709551615"), L""},
      {with_sequence("18446744073709551616"), kSequence},
      {with_sequence("0"), kSequence},
      {with_sequence("1\t"), kSequence},
      {kManifestHead + "\n" + row, kRow},
      {kManifestHead + "file\t1\t" + kDigest + "\ta\t\n", kRow},
      {kManifestHead + "FILE" + row.substr(4), kRow},
      {kManifestHead + "file 1 " + kDigest + " a\n", kRow},
      {kManifestHead + Row("0", "a"), kData},
      {kManifestHead + Row("8589934592", "a"), L""},
      {kManifestHead + Row("8589934593", "a"), kData},
      {kManifestHead + Row("-1", "a"), kData},
      {kManifestHead + Row("1", "a", std::string(63, 'a') + "A"), kData},
      {kManifestHead + Row("1", "../a"), kUnsafeSegment},
      {kManifestHead + Row("1", "Data/A.txt") + Row("1", "data/a.TXT"),
       L"The update manifest contains a duplicate path."},
      {kManifestHead + Row("8589934592", "a") + Row("8589934592", "b"), L""},
      {kManifestHead + Row("8589934592", "a") + Row("8589934592", "b") + Row("1", "c"),
       L"The update manifest exceeds the release size limit."},
      {kManifestHead + Rows(1024, Row("1", "f#")), L""},
      {kManifestHead + Rows(1025, Row("1", "f#")), L"The update manifest contains too many files."},
  };
  for (const TextCase& c : cases) {
    UpdateError error;
    Manifest manifest;
    EXPECT_EQ(ParseManifest(AsBytes(c.text), manifest, error), c.message.empty()) << c.text.substr(0, 300);
    EXPECT_EQ(error.Message(), c.message) << c.text.substr(0, 300);
  }
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

class InstalledStates : public testing::Test {
 protected:
  ScratchDirectory scratch_;
  std::wstring path_ = scratch_ / L"TalvexUpdateState.dat";
};

TEST_F(InstalledStates, AreReadStrictly) {
  constexpr wchar_t kEncoding[] = L"The installed update state has an invalid encoding.";
  constexpr wchar_t kFormat[] = L"The installed update state has an invalid format.";
  constexpr wchar_t kRelease[] = L"The installed update state has invalid release information.";
  constexpr wchar_t kDigestMessage[] = L"The installed update state has an invalid manifest digest.";
  const auto state = [](const std::string& sequence, const std::string& release, const std::string& digest) {
    return "TALVEX-UPDATE-STATE-V1\nsequence\t" + sequence + "\nrelease\t" + release + "\nmanifest-sha256\t" +
           digest + "\n";
  };
  const std::string good = state("7", "1.0", kDigest);
  const TextCase cases[] = {
      {good, L""},
      {state("18446744073709551615", "1.0", kDigest), L""},
      {state("007", "1.0", kDigest), L""},
      {"", kEncoding},
      {good.substr(0, good.size() - 1), kEncoding},
      {"TALVEX-UPDATE-STATE-V1\r\n", kEncoding},
      {good + "\n", kFormat},
      {"talvex" + good.substr(6), kFormat},
      {state("0", "1.0", kDigest), kRelease},
      {state("18446744073709551616", "1.0", kDigest), kRelease},
      {state("7\t", "1.0", kDigest), kRelease},
      {state("7", "1.0.", kDigest), kRelease},
      {state("7", "1.0\t", kDigest), kRelease},
      {state("7", "1.0", kDigest + "\t"), kDigestMessage},
      {state("7", "1.0", "A" + kDigest.substr(1)), kDigestMessage},
      {std::string(4097, '\n'), L"The file is too large or is not a regular file."},
  };
  for (const TextCase& c : cases) {
    WriteTestFile(path_, c.text);
    InstalledState record;
    UpdateError error;
    EXPECT_EQ(LoadInstalledState(scratch_.Path(), record, error), c.message.empty()) << c.text;
    EXPECT_EQ(record.present, c.message.empty());
    EXPECT_EQ(error.Message(), c.message) << c.text;
  }
}

TEST_F(InstalledStates, AreSavedWholeAndLeaveNothingBeside) {
  const Manifest manifest = TestRelease{"1.0", 7, {{"a", "contents"}}}.Parsed();
  InstalledState record;
  UpdateError error;
  EXPECT_TRUE(LoadInstalledState(scratch_.Path(), record, error));
  EXPECT_FALSE(record.present);
  WriteTestFile(path_ + L".new-" + std::to_wstring(GetCurrentProcessId()), "left by a crash");
  EXPECT_TRUE(SaveInstalledState(scratch_.Path(), manifest, error));
  const std::string text = "TALVEX-UPDATE-STATE-V1\nsequence\t7\nrelease\t1.0\nmanifest-sha256\t" +
                           WideToUtf8(DigestToHex(manifest.digest)) + "\n";
  EXPECT_EQ(ReadTree(scratch_.Path()), (Tree{{L"TalvexUpdateState.dat", text}}));

  const OwnedHandle holder(CreateFileW(path_.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(SaveInstalledState(scratch_.Path(), manifest, error));
  EXPECT_TRUE(error.Message().starts_with(L"Could not save the installed update state: "));
  EXPECT_EQ(ReadTree(scratch_.Path()).size(), 1u);
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

TEST(TrustedState, IsBelievedOnlyWhileStateCacheAndSignatureAgree) {
  const TestRelease release{"1.0", 5, {{"a", "contents"}}};
  const TestRelease other{"1.0", 6, {{"a", "contents"}}};
  ScratchDirectory scratch;
  const std::wstring root = scratch.Path();
  const std::wstring cache = scratch / L".talvex-update-cache";
  const auto is_trusted = [&] {
    InstalledState state;
    Manifest manifest;
    const bool trusted = LoadTrustedState(root, PublisherKeyBlob(), state, manifest);
    EXPECT_EQ(state.present, trusted);
    EXPECT_EQ(manifest.entries.size(), trusted ? 1u : 0u);
    return trusted;
  };
  EXPECT_FALSE(is_trusted());
  InstallTestRelease(release, root);
  EXPECT_TRUE(is_trusted());

  UpdateError error;
  EXPECT_TRUE(SaveInstalledState(root, other.Parsed(), error));  // a crash between cache and state
  EXPECT_FALSE(is_trusted());
  InstallTestRelease(release, root);
  WriteTestFile(cache + L"\\manifest.sig", other.Signature());
  EXPECT_FALSE(is_trusted());
  WriteTestFile(cache + L"\\manifest.sig", std::string(1025, 'x'));
  EXPECT_FALSE(is_trusted());
  InstallTestRelease(release, root);
  EXPECT_TRUE(is_trusted());
  RemoveTestTree(cache);
  EXPECT_FALSE(is_trusted());
  ByteBuffer manifest_bytes;
  ByteBuffer signature;
  EXPECT_FALSE(LoadVerifiedCache(root, manifest_bytes, signature, error));
  EXPECT_EQ(error.Message(), L"No verified update cache is available.");
}

TEST(VerifiedCaches, KeepTheOldPairWhenTheSignatureCannotMove) {
  const TestRelease release{"1.0", 5, {{"a", "contents"}}};
  ScratchDirectory scratch;
  InstallTestRelease(release, scratch.Path());
  const Tree before = ReadTree(scratch.Path());
  UpdateError error;
  {
    const OwnedHandle holder(CreateFileW((scratch / L".talvex-update-cache\\manifest.sig").c_str(),
                                         GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_FALSE(SaveVerifiedCache(scratch.Path(), AsBytes("new"), AsBytes("new"), error));
  }
  EXPECT_TRUE(error.Message().starts_with(L"Could not save the verified update cache: "));
  EXPECT_EQ(ReadTree(scratch.Path()), before);
}

TEST(ApplyPlans, NameOnlyWhatASignedManifestVouchesFor) {
  const TestRelease new_release{"2", 2, {{"A.dll", "2"}, {"data/b", "2"}, {"c", "2"}}};
  const TestRelease old_release{"1", 1, {{"a.dll", "1"}, {"old/X.bin", "1"}}};
  const Manifest new_manifest = new_release.Parsed();
  const Manifest old_manifest = old_release.Parsed();
  const std::string head =
      "TALVEX-APPLY-V1\nmanifest-sha256\t" + HexDigestOf(new_release.ManifestText()) + "\n";
  constexpr wchar_t kEncoding[] = L"The update apply plan has an invalid encoding.";
  constexpr wchar_t kHeader[] = L"The update apply plan header is invalid.";
  constexpr wchar_t kOther[] = L"The update apply plan targets a different manifest.";
  constexpr wchar_t kRow[] = L"The update apply plan has an invalid file row.";
  constexpr wchar_t kDuplicate[] = L"The update apply plan contains a duplicate file.";
  constexpr wchar_t kOutside[] = L"The update apply plan contains a file outside the signed manifest.";
  struct {
    std::string text;
    bool has_old;
    std::wstring result;  // accepted: the entries, new before retired; otherwise the message
  } const cases[] = {
      {head + "file\ta.DLL\ndelete\tOLD/x.bin\nfile\tc\n", true, L"A.dll c -old/X.bin"},
      {head + "file\tdata/b\n", false, L"data/b"},
      {head + "delete\told/X.bin\n", false, L"The update apply plan cannot prove a managed file removal."},
      {head + "delete\tA.dll\n", true, L"The update apply plan tries to delete a current file."},
      {head + "delete\tabsent\n", true, kOutside},
      {head + "file\told/X.bin\n", true, kOutside},
      {head + "file\tA.dll\ndelete\ta.dll\n", true, kDuplicate},
      {head + "file\tc\nfile\tC\n", true, kDuplicate},
      {head + "file\tc\n\nfile\tA.dll\n", true, kRow},
      {head + "DELETE\told/X.bin\n", true, kRow},
      {head + "File\tc\n", true, kRow},
      {head + "file c\n", true, kRow},
      {head + "file\tc\t\n", true, kUnsafePath},
      {head, true, kHeader},
      {"TALVEX-APPLY-V1 \n" + head.substr(16) + "file\tc\n", true, kHeader},
      {"TALVEX-APPLY-V1\nmanifest-sha1\tx\nfile\tc\n", true,
       L"The update apply plan has no manifest digest."},
      {"TALVEX-APPLY-V1\nmanifest-sha256\t" + kDigest + "\nfile\tc\n", true, kOther},
      {head.substr(0, head.size() - 1) + "\t\nfile\tc\n", true, kOther},
      {head + "file\tc", true, kEncoding},
      {head + "file\tc\r\n", true, kEncoding},
      {"", true, kEncoding},
      {head + std::string(262'144 - head.size() - 1, 'x') + "\n", true, kRow},
      {head + std::string(262'144 - head.size(), 'x') + "\n", true, kEncoding},
  };
  for (const auto& c : cases) {
    std::vector<const ManifestEntry*> install;
    std::vector<const ManifestEntry*> retire;
    UpdateError error;
    std::string accepted;
    if (ParseApplyPlan(AsBytes(c.text), new_manifest, c.has_old ? &old_manifest : nullptr,
                       new_manifest.digest, install, retire, error)) {
      for (const ManifestEntry* entry : install) {
        accepted += (accepted.empty() ? "" : " ") + entry->path;
      }
      for (const ManifestEntry* entry : retire) {
        accepted += " -" + entry->path;
      }
      EXPECT_EQ(FormatApplyPlan(new_manifest.digest, install, retire).size(), c.text.size());
    }
    EXPECT_EQ(error.IsEmpty() ? Utf8ToWide(accepted) : error.Message(), c.result) << c.text.substr(0, 200);
  }
}

class RollbackJournals : public testing::Test {
 protected:
  ScratchDirectory scratch_;
  std::wstring path_ = scratch_ / L"rollback.journal";
  UpdateError error_;
};

TEST_F(RollbackJournals, AreReadStrictly) {
  const std::string digest_line = "TALVEX-ROLLBACK-V1\nmanifest-sha256\t" + kDigest + "\n";
  const std::string head =
      digest_line + "previous-state\t1\nprevious-cache-manifest\t0\nprevious-cache-signature\t1\n";
  constexpr wchar_t kEncoding[] = L"The update rollback journal has an invalid encoding.";
  constexpr wchar_t kFormat[] = L"The update rollback journal has an invalid format.";
  constexpr wchar_t kFlags[] = L"The update rollback journal has invalid previous-state flags.";
  constexpr wchar_t kRow[] = L"The update rollback journal has an invalid file row.";
  const std::string row = "file\t1\ta\n";
  const TextCase cases[] = {
      {head + row + "delete\t0\tb/c\n", L""},
      {head, kFormat},
      {"talvex" + head.substr(6) + row, kFormat},
      {head + "file\t1\ta", kEncoding},
      {head + "file\t1\ta\r\n", kEncoding},
      {head + "file\t1\t" + std::string("\0\n", 2), kEncoding},
      {"", kEncoding},
      {"TALVEX-ROLLBACK-V1\nmanifest-sha256\t" + std::string(64, 'A') + head.substr(head.find("\nprev")) +
           row,
       L"The update rollback journal has an invalid manifest digest."},
      {digest_line + "previous-state\t1 \nprevious-cache-manifest\t0\nprevious-cache-signature\t1\n" + row,
       kFlags},
      {digest_line + "previous-state\ttrue\nprevious-cache-manifest\t0\nprevious-cache-signature\t1\n" + row,
       kFlags},
      {digest_line + "previous-cache-manifest\t0\nprevious-state\t1\nprevious-cache-signature\t1\n" + row,
       kFlags},
      {digest_line + "previous-state\t1\nprevious-cache-manifest\t\nprevious-cache-signature\t1\n" + row,
       kFlags},
      {digest_line + "previous-state\t1\nprevious-cache-manifest\t0\nprevious-cache-signature\t01\n" + row,
       kFlags},
      {head + "file\t1\ta\tb\n", kRow},
      {head + "file\t2\ta\n", kRow},
      {head + "move\t1\ta\n", kRow},
      {head + row + "\n", kRow},
      {head + "file\t1\t../a\n", kUnsafeSegment},
      {head + "file\t1\tData/A\ndelete\t1\tdata/a\n",
       L"The update rollback journal contains a duplicate file."},
      {head + Rows(2048, "file\t1\tf#\n"), L""},
      {head + Rows(2049, "file\t1\tf#\n"), L"The update rollback journal has an invalid file count."},
      {head + std::string(262'144, 'x') + "\n", L"The file is too large or is not a regular file."},
  };
  for (const TextCase& c : cases) {
    WriteTestFile(path_, c.text);
    RollbackJournal journal;
    UpdateError error;
    EXPECT_EQ(ParseRollbackJournal(path_, journal, error), c.message.empty()) << c.text.substr(0, 300);
    EXPECT_EQ(error.Message(), c.message) << c.text.substr(0, 300);
  }
}

TEST_F(RollbackJournals, AreWrittenAsTheyAreRead) {
  RollbackJournal journal;
  journal.manifest_digest.bytes.fill(0xAA);
  journal.previous_cache_manifest = true;
  journal.entries = {{false, true, "Data/A", L"Data\\A"}, {true, false, "b", L"b"}};
  ASSERT_TRUE(SaveRollbackJournal(path_, journal, error_));
  const std::string text = "TALVEX-ROLLBACK-V1\nmanifest-sha256\t" + Repeat(64, "a") +
                           "\nprevious-state\t0\nprevious-cache-manifest\t1\nprevious-cache-signature\t0\n"
                           "file\t1\tData/A\ndelete\t0\tb\n";
  EXPECT_EQ(ReadTree(scratch_.Path()), (Tree{{L"rollback.journal", text}}));
  RollbackJournal parsed;
  ASSERT_TRUE(ParseRollbackJournal(path_, parsed, error_));
  ASSERT_TRUE(SaveRollbackJournal(path_, parsed, error_));
  EXPECT_EQ(ReadTestFile(path_), text);
}

TEST_F(RollbackJournals, AreRefusedBeforeAnEarlierOneIsTouched) {
  WriteTestFile(path_, "earlier");
  const auto message = [&](std::vector<RollbackEntry> entries) {
    RollbackJournal journal;
    journal.entries = std::move(entries);
    UpdateError error;
    EXPECT_FALSE(SaveRollbackJournal(path_, journal, error));
    EXPECT_EQ(ReadTree(scratch_.Path()), (Tree{{L"rollback.journal", "earlier"}}));
    return error.Message();
  };
  constexpr wchar_t kCount[] = L"The update rollback journal has an invalid file count.";
  EXPECT_EQ(message({}), kCount);
  EXPECT_EQ(message(std::vector<RollbackEntry>(2049, {false, false, "a", L"a"})), kCount);
  EXPECT_EQ(message({{false, false, "a", L"A"}}), L"The update rollback journal contains an unsafe file.");
  EXPECT_EQ(message({{false, false, "../a", L"a"}}), kUnsafeSegment);
  EXPECT_EQ(message({{false, false, "a", L"a"}, {true, false, "A", L"A"}}),
            L"The update rollback journal contains a duplicate file.");
}

// The size limit is met to the byte, by a path that is as long as it takes.
TEST_F(RollbackJournals, EndAtTheirSizeLimit) {
  RollbackJournal journal;
  std::size_t size = 170;  // the header with its 64 digits
  const auto add = [&](std::size_t path_length) {
    const std::string number = std::to_string(1000 + journal.entries.size());
    std::string path =
        std::string(100, 'n') + "/" + std::string(path_length - 101 - number.size(), 'm') + number;
    std::wstring wide = Utf8ToWide(path);
    wide[100] = L'\\';
    size += 8 + path.size();
    journal.entries.push_back({false, true, std::move(path), std::move(wide)});
  };
  while (262'144 - size > 500) {
    add(200);
  }
  add((262'144 - size) / 2 - 8);
  add(262'144 - size - 8);
  ASSERT_EQ(size, 262'144u);
  EXPECT_TRUE(SaveRollbackJournal(path_, journal, error_)) << WideToUtf8(error_.Message());
  EXPECT_EQ(ReadTestFile(path_).size(), 262'144u);
  EXPECT_TRUE(ParseRollbackJournal(path_, journal, error_));
  journal.entries.back().path += "x";
  journal.entries.back().wide_path += L"x";
  EXPECT_FALSE(SaveRollbackJournal(path_, journal, error_));
  EXPECT_EQ(error_.Message(), L"The update rollback journal is too large.");
}

TEST(FailureMarkers, AreSixtyFiveBytesAndReplaceTheEarlierOne) {
  ScratchDirectory scratch;
  WriteTestFile(scratch / L"TalvexUpdateFailure.dat", "earlier");
  WriteTestFile(scratch / L"TalvexUpdateFailure.dat.new", "left by a crash");
  Sha256Digest digest;
  digest.bytes.fill(0xAA);
  UpdateError error;
  EXPECT_TRUE(SaveFailureMarker(scratch.Path(), digest, error));
  EXPECT_EQ(ReadTree(scratch.Path()), (Tree{{L"TalvexUpdateFailure.dat", kDigest + "\n"}}));

  const OwnedHandle holder(CreateFileW((scratch / L"TalvexUpdateFailure.dat").c_str(), GENERIC_READ, 0,
                                       nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(SaveFailureMarker(scratch.Path(), digest, error));
  EXPECT_EQ(error.Message(), L"Could not save the update failure marker.");
  EXPECT_EQ(ReadTree(scratch.Path()).size(), 1u);
}

}  // namespace
}  // namespace talvex::test
