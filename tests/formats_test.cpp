// What stands behind the text forms: the fields of what was parsed, the order of releases, and the files that
// the updater keeps for itself. What it writes is read again, and neither a damaged file nor a failed save
// leaves half of one behind. Which texts are accepted at all is tried in hostile_input_test.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "core/owned_handle.h"
#include "core/publisher_key.h"
#include "core/text_encoding.h"
#include "formats/failure_marker.h"
#include "formats/installed_state.h"
#include "formats/manifest.h"
#include "formats/rollback_journal.h"
#include "formats/text_lines.h"
#include "formats/verified_cache.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

const TestRelease kRelease{"1.0", 5, {{"Data/A.txt", "contents"}, {"b", "more"}}};

TEST(Manifests, HaveADigestAndEntriesThatCanBeFound) {
  const Manifest manifest = kRelease.Parsed();
  EXPECT_EQ(WideToUtf8(DigestToHex(manifest.digest)), HexDigestOf(kRelease.ManifestText()));
  ASSERT_EQ(manifest.entries.size(), 2u);
  EXPECT_EQ(FindManifestEntry(manifest, L"b"), &manifest.entries[1]);
  EXPECT_EQ(FindManifestEntry(manifest, L"data\\A.txt"), nullptr);
  EXPECT_EQ(FindManifestEntryIgnoringCase(manifest, L"data\\a.TXT"), &manifest.entries[0]);
  EXPECT_EQ(FindManifestEntryIgnoringCase(manifest, L"c"), nullptr);
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
    const InstalledState state = {c.trusted, c.installed, "", {}};
    Manifest offered = {"", c.offered, {}, {}};
    offered.digest.bytes.back() = c.same_digest ? 0 : 1;
    UpdateError error;
    EXPECT_EQ(CheckReleaseOrder(state, offered, error), *c.message == L'\0');
    EXPECT_EQ(error.Message(), c.message);
  }
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

  // `save` fails while the first file of `saved` cannot be replaced, and later leaves exactly `saved` in
  // place of the earlier files. Neither leaves a temporary file, not even that of a run that died.
  void ExpectReplacedWhole(const Tree& saved, const std::wstring& temporary_suffix,
                           const std::wstring& move_failed, const std::function<bool()>& save) {
    for (const auto& [path, contents] : saved) {
      WriteTestFile(scratch_ / path, "earlier");
    }
    Tree expected = ReadTree(root_);
    for (const auto& [path, contents] : saved) {
      WriteTestFile((scratch_ / path) + temporary_suffix, "left behind");
    }
    OwnedHandle holder(CreateFileW((scratch_ / saved.begin()->first).c_str(), GENERIC_READ, FILE_SHARE_READ,
                                   nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_FALSE(save());
    const bool windows_says_why = move_failed.ends_with(L": ");
    EXPECT_EQ(error_.Message().substr(0, windows_says_why ? move_failed.size() : std::wstring::npos),
              move_failed);
    EXPECT_EQ(ReadTree(root_), expected);
    holder.Reset();
    EXPECT_TRUE(save());
    for (const auto& [path, contents] : saved) {
      expected[path] = contents;
    }
    EXPECT_EQ(ReadTree(root_), expected);
  }
};

TEST_F(UpdateRecords, AreReplacedWholeOrNotAtAll) {
  const RollbackJournal journal = {manifest_.digest, false, false, true, {{false, true, "a/b", L"a\\b"}}};
  std::string journal_text;
  EXPECT_TRUE(FormatRollbackJournal(journal, journal_text, error_));
  ExpectReplacedWhole({{L"TalvexUpdateState.dat", FormatInstalledState(manifest_)}},
                      L".new-" + std::to_wstring(GetCurrentProcessId()),
                      L"Could not save the installed update state: ",
                      [&] { return SaveInstalledState(root_, manifest_, error_); });
  ExpectReplacedWhole({{L"TalvexUpdateFailure.dat", HexDigestOf(kRelease.ManifestText()) + "\n"}}, L".new",
                      L"Could not save the update failure marker.",
                      [&] { return SaveFailureMarker(root_, manifest_.digest, error_); });
  ExpectReplacedWhole({{L"rollback.journal", journal_text}}, L".new",
                      L"Could not save the update rollback journal: ",
                      [&] { return SaveRollbackJournal(journal_path_, journal, error_); });
  ExpectReplacedWhole({{L".talvex-update-cache\\manifest.sig", "signature"},
                       {L".talvex-update-cache\\manifest.txt", "manifest"}},
                      L".new", L"Could not save the verified update cache: ", [&] {
                        return SaveVerifiedCache(root_, AsBytes("manifest"), AsBytes("signature"), error_);
                      });
}

TEST_F(UpdateRecords, AreNotReadBeyondTheirLimit) {
  InstalledState state;
  RollbackJournal journal;
  EXPECT_TRUE(LoadInstalledState(root_, state, error_));  // none was written yet
  EXPECT_FALSE(state.present);
  for (const std::size_t limit : {4'096u, 262'144u}) {
    const bool is_state = limit == 4'096;
    for (const bool above : {false, true}) {
      WriteTestFile(is_state ? state_path_ : journal_path_, std::string(limit + (above ? 1 : 0), '\n'));
      EXPECT_FALSE(is_state ? LoadInstalledState(root_, state, error_)
                            : ParseRollbackJournal(journal_path_, journal, error_));
      EXPECT_EQ(error_.Message() == L"The file is too large or is not a regular file.", above);
    }
  }
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
  constexpr wchar_t kCount[] = L"The update rollback journal has an invalid file count.";
  Entries too_large;
  for (int number = 1'000; number < 2'500; ++number) {
    const std::string name = std::to_string(number) + std::string(90, 'n');
    too_large.push_back({false, true, name + "/" + name, Utf8ToWide(name) + L"\\" + Utf8ToWide(name)});
  }
  const std::pair<Entries, std::wstring> cases[] = {
      {{}, kCount},
      {Entries(2'049, {false, false, "a", L"a"}), kCount},
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
