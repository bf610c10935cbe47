// The files that the updater keeps for itself: what it writes is read again, and neither a damaged file nor
// a failed save leaves half of one behind. Which texts are refused is tried in hostile_input_test.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "core/owned_handle.h"
#include "core/publisher_key.h"
#include "core/text_encoding.h"
#include "formats/failure_marker.h"
#include "formats/installed_state.h"
#include "formats/rollback_journal.h"
#include "formats/text_lines.h"
#include "formats/verified_cache.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

TEST(InstalledStates, AreSavedWholeAndLeaveNothingBeside) {
  ScratchDirectory scratch;
  const std::wstring path = scratch / L"TalvexUpdateState.dat";
  const Manifest manifest = TestRelease{"1.0", 7, {{"a", "contents"}}}.Parsed();
  InstalledState record;
  UpdateError error;
  EXPECT_TRUE(LoadInstalledState(scratch.Path(), record, error));
  EXPECT_FALSE(record.present);
  WriteTestFile(path + L".new-" + std::to_wstring(GetCurrentProcessId()), "left by a crash");
  EXPECT_TRUE(SaveInstalledState(scratch.Path(), manifest, error));
  const std::string text = "TALVEX-UPDATE-STATE-V1\nsequence\t7\nrelease\t1.0\nmanifest-sha256\t" +
                           WideToUtf8(DigestToHex(manifest.digest)) + "\n";
  EXPECT_EQ(ReadTree(scratch.Path()), (Tree{{L"TalvexUpdateState.dat", text}}));

  const OwnedHandle holder(CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(SaveInstalledState(scratch.Path(), manifest, error));
  EXPECT_TRUE(error.Message().starts_with(L"Could not save the installed update state: "));
  EXPECT_EQ(ReadTree(scratch.Path()).size(), 1u);
}

TEST(UpdateRecords, AreNotReadBeyondTheirLimitNorBelievedWhenDamaged) {
  constexpr wchar_t kTooLarge[] = L"The file is too large or is not a regular file.";
  ScratchDirectory scratch;
  const std::wstring journal_path = scratch / L"rollback.journal";
  const struct {
    std::size_t size;
    const wchar_t *state_message, *journal_message;
  } cases[] = {
      {4'096, L"The installed update state has an invalid format.",
       L"The update rollback journal has an invalid format."},
      {4'097, kTooLarge, L"The update rollback journal has an invalid format."},
      {262'144, kTooLarge, L"The update rollback journal has an invalid format."},
      {262'145, kTooLarge, kTooLarge},
  };
  for (const auto& c : cases) {
    WriteTestFile(scratch / L"TalvexUpdateState.dat", std::string(c.size, '\n'));
    WriteTestFile(journal_path, std::string(c.size, '\n'));
    InstalledState state;
    RollbackJournal journal;
    UpdateError state_error;
    UpdateError journal_error;
    EXPECT_FALSE(LoadInstalledState(scratch.Path(), state, state_error));
    EXPECT_FALSE(state.present);
    EXPECT_EQ(state_error.Message(), c.state_message);
    EXPECT_FALSE(ParseRollbackJournal(journal_path, journal, journal_error));
    EXPECT_EQ(journal_error.Message(), c.journal_message);
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
    ByteBuffer manifest_bytes;
    ByteBuffer signature;
    const bool trusted =
        LoadTrustedState(root, PublisherKeyBlob(), state, manifest, &manifest_bytes, &signature);
    EXPECT_EQ(manifest_bytes.size(), trusted ? release.ManifestText().size() : 0);
    EXPECT_EQ(signature.size(), trusted ? 384u : 0u);
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

class RollbackJournals : public testing::Test {
 protected:
  ScratchDirectory scratch_;
  std::wstring path_ = scratch_ / L"rollback.journal";
  UpdateError error_;
};

TEST_F(RollbackJournals, AreWrittenAsTheyAreRead) {
  RollbackJournal journal;
  journal.manifest_digest.bytes.fill(0xAA);
  journal.previous_cache_manifest = true;
  journal.entries = {{false, true, "Data/A", L"Data\\A"}, {true, false, "b", L"b"}};
  ASSERT_TRUE(SaveRollbackJournal(path_, journal, error_));
  const std::string text = "TALVEX-ROLLBACK-V1\nmanifest-sha256\t" + std::string(64, 'a') +
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
  constexpr wchar_t kUnsafeSegment[] = L"The update manifest contains an unsafe path segment.";
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
  EXPECT_EQ(ReadTree(scratch.Path()), (Tree{{L"TalvexUpdateFailure.dat", std::string(64, 'a') + "\n"}}));

  const OwnedHandle holder(CreateFileW((scratch / L"TalvexUpdateFailure.dat").c_str(), GENERIC_READ, 0,
                                       nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(SaveFailureMarker(scratch.Path(), digest, error));
  EXPECT_EQ(error.Message(), L"Could not save the update failure marker.");
  EXPECT_EQ(ReadTree(scratch.Path()).size(), 1u);
}

}  // namespace
}  // namespace talvex::test
