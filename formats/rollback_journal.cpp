#include "formats/rollback_journal.h"

#include <algorithm>
#include <array>
#include <cwctype>
#include <set>
#include <string_view>
#include <utility>

#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/relative_path.h"
#include "formats/signed_manifest.h"
#include "formats/text_lines.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr char kMagic[] = "TALVEX-ROLLBACK-V1";
constexpr char kDigestKey[] = "manifest-sha256";
constexpr char kStateKey[] = "previous-state";
constexpr char kCacheManifestKey[] = "previous-cache-manifest";
constexpr char kCacheSignatureKey[] = "previous-cache-signature";
constexpr char kInstallKind[] = "file";
constexpr char kRetireKind[] = "delete";
constexpr std::size_t kMinLines = 6;

constexpr wchar_t kEncodingInvalid[] = L"The update rollback journal has an invalid encoding.";
constexpr wchar_t kIncomplete[] = L"The update rollback journal is incomplete.";
constexpr wchar_t kFormatInvalid[] = L"The update rollback journal has an invalid format.";
constexpr wchar_t kDigestInvalid[] = L"The update rollback journal has an invalid manifest digest.";
constexpr wchar_t kFlagsInvalid[] = L"The update rollback journal has invalid previous-state flags.";
constexpr wchar_t kRowInvalid[] = L"The update rollback journal has an invalid file row.";
constexpr wchar_t kDuplicateFile[] = L"The update rollback journal contains a duplicate file.";
constexpr wchar_t kCountInvalid[] = L"The update rollback journal has an invalid file count.";
constexpr wchar_t kUnsafeFile[] = L"The update rollback journal contains an unsafe file.";
constexpr wchar_t kTooLarge[] = L"The update rollback journal is too large.";
constexpr wchar_t kSaveFailed[] = L"Could not save the update rollback journal";
constexpr wchar_t kRecoveryManifestInvalid[] = L"The rollback recovery manifest is invalid.";

// The paths seen so far, folded per code unit with the runtime's mapping (not with the A to Z folding of the
// other formats).
class SeenPaths {
 public:
  // False when the path was seen before.
  [[nodiscard]] bool Add(std::wstring path) {
    std::transform(path.begin(), path.end(), path.begin(),
                   [](wchar_t unit) { return static_cast<wchar_t>(std::towlower(unit)); });
    return paths_.insert(std::move(path)).second;
  }

 private:
  std::set<std::wstring> paths_;
};

std::string_view FlagText(bool flag) {
  return flag ? "1" : "0";
}

bool ParseFlag(std::string_view text, bool& flag) {
  flag = text == "1";
  return flag || text == "0";
}

bool ParseKeyedFlag(std::string_view line, std::string_view key, bool& flag) {
  return ConsumeKey(line, key) && ParseFlag(line, flag);
}

bool IsValidCount(std::size_t count) {
  return count >= 1 && count <= kJournalEntryLimit;
}

// kind  TAB  existed flag  TAB  relative path
bool ParseRow(std::string_view line, RollbackEntry& entry, UpdateError& error) {
  std::array<std::string_view, 3> fields;
  if (!SplitFields(line, fields) || (fields[0] != kInstallKind && fields[0] != kRetireKind) ||
      !ParseFlag(fields[1], entry.existed)) {
    return Refuse(error, kRowInvalid);
  }
  entry.retired = fields[0] == kRetireKind;
  entry.path = fields[2];
  return ValidateRelativePath(fields[2], entry.wide_path, error);
}

bool AppendRows(const RollbackJournal& journal, std::string& text, UpdateError& error) {
  SeenPaths seen_paths;
  for (const RollbackEntry& entry : journal.entries) {
    std::wstring validated;
    if (!ValidateRelativePath(entry.path, validated, error) || validated != entry.wide_path) {
      return RefuseUnlessExplained(error, kUnsafeFile);
    }
    if (!seen_paths.Add(entry.wide_path)) {
      return Refuse(error, kDuplicateFile);
    }
    text.append(entry.retired ? kRetireKind : kInstallKind).append("\t");
    text.append(FlagText(entry.existed)).append("\t").append(entry.path).append("\n");
  }
  return true;
}

}  // namespace

bool ParseRollbackJournalText(std::string_view text, RollbackJournal& journal, UpdateError& error) {
  journal = {};
  if (!IsLineText(text, kJournalSizeLimit)) {
    return Refuse(error, kEncodingInvalid);
  }
  std::size_t line_count = 0;
  if (!CountLines(text, line_count)) {
    return Refuse(error, kIncomplete);
  }
  // line 1          the magic, the whole line
  if (line_count < kMinLines || ConsumeLine(text) != kMagic) {
    return Refuse(error, kFormatInvalid);
  }
  // line 2          "manifest-sha256"  TAB  digest
  std::string_view digest_text = ConsumeLine(text);
  if (!ConsumeKey(digest_text, kDigestKey) || !ParseHexDigest(digest_text, journal.manifest_digest)) {
    return Refuse(error, kDigestInvalid);
  }
  // lines 3 to 5    the previous-state flags
  if (!ParseKeyedFlag(ConsumeLine(text), kStateKey, journal.previous_state) ||
      !ParseKeyedFlag(ConsumeLine(text), kCacheManifestKey, journal.previous_cache_manifest) ||
      !ParseKeyedFlag(ConsumeLine(text), kCacheSignatureKey, journal.previous_cache_signature)) {
    return Refuse(error, kFlagsInvalid);
  }
  // line 6 and on   file rows
  SeenPaths seen_paths;
  while (!text.empty()) {
    RollbackEntry entry;
    if (!ParseRow(ConsumeLine(text), entry, error)) {
      return false;
    }
    if (!seen_paths.Add(entry.wide_path)) {
      return Refuse(error, kDuplicateFile);
    }
    journal.entries.push_back(std::move(entry));
  }
  return IsValidCount(journal.entries.size()) || Refuse(error, kCountInvalid);
}

bool FormatRollbackJournal(const RollbackJournal& journal, std::string& text, UpdateError& error) {
  text.clear();
  if (!IsValidCount(journal.entries.size())) {
    return Refuse(error, kCountInvalid);
  }
  text.append(kMagic).append("\n");
  text.append(kDigestKey).append("\t").append(WideToUtf8(DigestToHex(journal.manifest_digest))).append("\n");
  text.append(kStateKey).append("\t").append(FlagText(journal.previous_state)).append("\n");
  text.append(kCacheManifestKey).append("\t").append(FlagText(journal.previous_cache_manifest)).append("\n");
  text.append(kCacheSignatureKey)
      .append("\t")
      .append(FlagText(journal.previous_cache_signature))
      .append("\n");
  if (!AppendRows(journal, text, error)) {
    return false;
  }
  return text.size() <= kJournalSizeLimit || Refuse(error, kTooLarge);
}

bool SaveRollbackJournal(const std::wstring& path, const RollbackJournal& journal, UpdateError& error) {
  std::string text;
  return FormatRollbackJournal(journal, text, error) &&
         ReplaceWholeFile(path, TemporaryPath(path), AsBytes(text), kSaveFailed,
                          MoveFailureText::kPrefixOfWindowsText, error);
}

bool ParseRollbackJournal(const std::wstring& path, RollbackJournal& journal, UpdateError& error) {
  journal = {};
  ByteBuffer bytes;
  return ReadWholeFile(path, kJournalSizeLimit, bytes, error) &&
         ParseRollbackJournalText(AsText(bytes), journal, error);
}

bool VerifyRecoveryManifest(const std::wstring& previous_directory, const RollbackJournal& journal,
                            std::span<const std::byte> key_blob, Manifest& recovery_manifest,
                            UpdateError& error) {
  recovery_manifest = {};
  SignedManifest kept;
  if (!LoadSignedManifest(RecoveryPair(previous_directory), key_blob, kept, error) ||
      !DigestsEqual(kept.manifest.digest, journal.manifest_digest)) {
    return RefuseUnlessExplained(error, kRecoveryManifestInvalid);
  }
  recovery_manifest = std::move(kept.manifest);
  return true;
}

}  // namespace talvex
