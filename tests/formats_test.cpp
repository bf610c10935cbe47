// What stands behind the text forms: the order of releases, and the files that the updater keeps for itself,
// of which neither a damaged one is believed nor a failed save leaves half a one behind. Which texts are
// accepted at all is tried in hostile_input_test.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/owned_handle.h"
#include "core/publisher_key.h"
#include "core/text_encoding.h"
#include "formats/failure_marker.h"
#include "formats/installed_state.h"
#include "formats/manifest.h"
#include "formats/relative_path.h"
#include "formats/rollback_journal.h"
#include "formats/text_lines.h"
#include "formats/update_changes.h"
#include "formats/verified_cache.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

const TestRelease kRelease{"1.0", 5, {{"Data/A.txt", "contents"}, {"b", "more"}}};

TEST(ReleaseOrder, ComparesSequencesAndThenDigests) {
  constexpr wchar_t kOlder[] = L"The update server offered an older release. The update was rejected.";
  constexpr wchar_t kChanged[] = L"The update server changed a release without increasing its sequence.";
  const struct {
    bool trusted;
    std::uint64_t installed, offered;
    bool same_digest;
    std::wstring message;
  } cases[] = {
      {true, 5, 5, true, L""},
      {true, 5, 5, false, kChanged},
      {true, 4'294'967'296, 4'294'967'295, true, kOlder},
      {true, 4'294'967'295, 4'294'967'296, false, L""},
      {false, 5, 4, false, L""},
  };
  for (const auto& c : cases) {
    const InstalledState state = {c.trusted, c.installed, "", {}};
    Manifest offered = {"", c.offered, {}, {}};
    offered.digest.bytes.back() = c.same_digest ? 0 : 1;
    UpdateError error;
    EXPECT_EQ(CheckReleaseOrder(state, offered, error), c.message.empty());
    EXPECT_EQ(error.Message(), c.message);
  }
}

// No release is so large that a client could not install it, whatever it has to leave.
TEST(UpdateChanges, AlwaysFitIntoOneUpdateWithoutRetiredFiles) {
  Manifest manifest;
  manifest.entries.resize(kManifestFileLimit);
  UpdateChanges changes;
  UpdateError error;
  std::wstring too_long;
  std::uint64_t number = 100'000'000'000'000'000;
  for (ManifestEntry& entry : manifest.entries) {
    entry.size = ++number % 1'000 == 7 ? 1 : 2;
    entry.path = std::string(100, 'a') + "/" + std::string(100, 'b') + "/" + std::to_string(number);
    EXPECT_TRUE(ValidateRelativePath(entry.path, entry.normalised_path, error)) << "the longest";
    EXPECT_FALSE(ValidateRelativePath(entry.path + "0", too_long, error));
    changes.installs.push_back(&entry);
  }
  EXPECT_TRUE(FitIntoOneUpdate({}, changes));
  UpdateChanges only_retires = {{}, std::exchange(changes.installs, {})};
  KeepRetiredFiles(manifest, only_retires);
  EXPECT_EQ(only_retires.installs, std::vector<const ManifestEntry*>{&manifest.entries[6]});
  EXPECT_TRUE(only_retires.retires.empty());
}

class UpdateRecords : public testing::Test {
 protected:
  ScratchDirectory scratch_;
  std::wstring root_ = scratch_.Path();
  std::wstring state_path_ = scratch_ / L"TalvexUpdateState.dat";
  std::wstring cache_ = scratch_ / L".talvex-update-cache\\";
  std::wstring journal_path_ = scratch_ / L"rollback.journal";
  Manifest manifest_ = kRelease.Parsed();
  UpdateError error_;
};

// Nor does a save that fails leave a temporary file, not even that of a run that died.
TEST_F(UpdateRecords, StayAsTheyAreWhenTheyCannotBeReplaced) {
  const RollbackJournal journal = {{}, false, false, true, {{false, true, "a/b", L"a\\b"}}};
  const std::wstring state_suffix = L".new-" + std::to_wstring(GetCurrentProcessId());
  const std::tuple<std::wstring, std::wstring, std::wstring, std::function<bool()>> cases[] = {
      {state_path_, state_suffix, L"Could not save the installed update state: ",
       [&] { return SaveInstalledState(root_, manifest_, error_); }},
      {scratch_ / L"TalvexUpdateFailure.dat", L".new", L"Could not save the update failure marker.",
       [&] { return SaveFailureMarker(root_, {}, error_); }},
      {journal_path_, L".new", L"Could not save the update rollback journal: ",
       [&] { return SaveRollbackJournal(journal_path_, journal, error_); }},
      {cache_ + L"manifest.sig", L".new", L"Could not save the verified update cache: ",
       [&] { return SaveVerifiedCache(root_, {}, {}, error_); }},
  };
  for (const auto& [path, temporary_suffix, message, save] : cases) {
    WriteTestFile(path, "earlier");
    const Tree before = ReadTree(root_);
    WriteTestFile(path + temporary_suffix, "left behind");
    const OwnedHandle holder(
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_FALSE(save());
    EXPECT_TRUE(error_.Message().starts_with(message)) << WideToUtf8(error_.Message());
    EXPECT_EQ(error_.Message() == message, message.ends_with(L"."));  // else Windows says why
    EXPECT_EQ(ReadTree(root_), before);
  }
}

// The limits to the byte are those of the texts, in hostile_input_test.
TEST_F(UpdateRecords, AreNotReadBeyondTheirLimit) {
  constexpr wchar_t kTooLarge[] = L"The file is too large or is not a regular file.";
  InstalledState state;
  EXPECT_TRUE(LoadInstalledState(root_, state, error_));  // none was written yet
  EXPECT_FALSE(state.present);
  WriteTestFile(state_path_, std::string(4'097, '\n'));
  WriteTestFile(journal_path_, std::string(262'145, '\n'));
  EXPECT_FALSE(LoadInstalledState(root_, state, error_));
  EXPECT_EQ(error_.Message(), kTooLarge);
  RollbackJournal journal;
  EXPECT_FALSE(ParseRollbackJournal(journal_path_, journal, error_));
  EXPECT_EQ(error_.Message(), kTooLarge);
}

TEST_F(UpdateRecords, AreBelievedOnlyWhileStateCacheAndSignatureAgree) {
  const auto is_trusted = [&] {
    InstalledState state;
    Manifest manifest;
    ByteBuffer manifest_bytes;
    ByteBuffer signature;
    const bool trusted =
        LoadTrustedState(root_, PublisherKeyBlob(), state, manifest, &manifest_bytes, &signature);
    EXPECT_EQ(AsText(manifest_bytes), trusted ? kRelease.ManifestText() : "");
    EXPECT_EQ(signature.size(), trusted ? 384u : 0u);
    EXPECT_EQ(state.present, trusted);
    EXPECT_EQ(manifest.entries.size(), trusted ? 2u : 0u);
    return trusted;
  };
  EXPECT_FALSE(is_trusted());
  const TestRelease other{"1.0", 5, {{"a", "contents"}}};
  Manifest later = manifest_;
  later.sequence = 6;
  const std::pair<std::wstring, std::string> damages[] = {
      {state_path_, ""},
      {state_path_, FormatInstalledState(later)},
      {state_path_, FormatInstalledState(other.Parsed())},  // a crash between cache and state
      {cache_ + L"manifest.txt", other.ManifestText()},
      {cache_ + L"manifest.sig", other.Signature()},
      {cache_ + L"manifest.sig", std::string(1'025, 'x')},
  };
  for (const auto& [path, contents] : damages) {
    InstallTestRelease(kRelease, root_);
    EXPECT_TRUE(is_trusted());
    WriteTestFile(path, contents);
    EXPECT_FALSE(is_trusted()) << WideToUtf8(path) << ": " << contents;
  }
  RemoveTestTree(cache_);
  EXPECT_FALSE(is_trusted());
  ByteBuffer manifest_bytes;
  ByteBuffer signature;
  EXPECT_FALSE(LoadVerifiedCache(root_, manifest_bytes, signature, error_));
  EXPECT_EQ(error_.Message(), L"No verified update cache is available.");
}

// Nothing is written that the parser would refuse. (What it takes is written: hostile_input_test has a
// journal that meets the limit to the byte.)
TEST_F(UpdateRecords, KeepAnEarlierJournalWhenTheNewOneIsWrong) {
  using Entries = std::vector<RollbackEntry>;
  Entries too_large;
  for (int number = 1'000; number < 2'500; ++number) {
    const std::string name = std::to_string(number) + std::string(90, 'n');
    too_large.push_back({false, true, name + "/" + name, Utf8ToWide(name) + L"\\" + Utf8ToWide(name)});
  }
  const std::pair<Entries, std::wstring> cases[] = {
      {{}, L"The update rollback journal has an invalid file count."},
      {{{false, false, "a", L"A"}}, L"The update rollback journal contains an unsafe file."},
      {{{false, false, "../a", L"a"}}, L"The update manifest contains an unsafe path segment."},
      {{{false, false, "a", L"a"}, {true, false, "A", L"A"}},
       L"The update rollback journal contains a duplicate file."},
      {too_large, L"The update rollback journal is too large."},
  };
  WriteTestFile(journal_path_, "earlier");
  for (const auto& [entries, message] : cases) {
    RollbackJournal journal;
    journal.entries = entries;
    UpdateError error;
    EXPECT_FALSE(SaveRollbackJournal(journal_path_, journal, error));
    EXPECT_EQ(error.Message(), message);
    EXPECT_EQ(ReadTree(root_), (Tree{{L"rollback.journal", "earlier"}}));
  }
}

}  // namespace
}  // namespace talvex::test
