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
#include "formats/text_lines.h"

namespace talvex {
namespace {

constexpr std::string_view kMagic = "TALVEX-ROLLBACK-V1";
constexpr std::string_view kDigestKey = "manifest-sha256";
constexpr std::string_view kStateKey = "previous-state";
constexpr std::string_view kCacheManifestKey = "previous-cache-manifest";
constexpr std::string_view kCacheSignatureKey = "previous-cache-signature";
constexpr std::string_view kInstallKind = "file";
constexpr std::string_view kRetireKind = "delete";
constexpr std::size_t kLeastLines = 6;
constexpr std::wstring_view kTemporarySuffix = L".new";

constexpr std::wstring_view kEncodingInvalid = L"The update rollback journal has an invalid encoding.";
constexpr std::wstring_view kIncomplete = L"The update rollback journal is incomplete.";
constexpr std::wstring_view kFormatInvalid = L"The update rollback journal has an invalid format.";
constexpr std::wstring_view kDigestInvalid = L"The update rollback journal has an invalid manifest digest.";
constexpr std::wstring_view kFlagsInvalid = L"The update rollback journal has invalid previous-state flags.";
constexpr std::wstring_view kRowInvalid = L"The update rollback journal has an invalid file row.";
constexpr std::wstring_view kDuplicateFile = L"The update rollback journal contains a duplicate file.";
constexpr std::wstring_view kCountInvalid = L"The update rollback journal has an invalid file count.";
constexpr std::wstring_view kUnsafeFile = L"The update rollback journal contains an unsafe file.";
constexpr std::wstring_view kTooLarge = L"The update rollback journal is too large.";
constexpr std::wstring_view kSaveFailed = L"Could not save the update rollback journal";

// The paths met so far, folded per unit with the runtime's mapping (not with the A to Z folding of the other
// formats).
class SeenPaths {
 public:
  // False when the path was met before.
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
  return TakeKey(line, key) && ParseFlag(line, flag);
}

bool IsValidCount(std::size_t count) {
  return count >= 1 && count <= kJournalEntryLimit;
}

// kind  TAB  existed flag  TAB  relative path
bool ParseRow(std::string_view line, RollbackEntry& entry, UpdateError& error) {
  std::array<std::string_view, 3> fields;
  if (!CutFields(line, fields) || (fields[0] != kInstallKind && fields[0] != kRetireKind) ||
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
  if (line_count < kLeastLines || TakeLine(text) != kMagic) {
    return Refuse(error, kFormatInvalid);
  }
  // line 2          "manifest-sha256"  TAB  digest
  std::string_view digest_text = TakeLine(text);
  if (!TakeKey(digest_text, kDigestKey) || !ParseHexDigest(digest_text, journal.manifest_digest)) {
    return Refuse(error, kDigestInvalid);
  }
  // lines 3 to 5    the previous-state flags
  if (!ParseKeyedFlag(TakeLine(text), kStateKey, journal.previous_state) ||
      !ParseKeyedFlag(TakeLine(text), kCacheManifestKey, journal.previous_cache_manifest) ||
      !ParseKeyedFlag(TakeLine(text), kCacheSignatureKey, journal.previous_cache_signature)) {
    return Refuse(error, kFlagsInvalid);
  }
  // line 6 and on   file rows
  SeenPaths seen_paths;
  while (!text.empty()) {
    RollbackEntry entry;
    if (!ParseRow(TakeLine(text), entry, error)) {
      return false;
    }
    if (!seen_paths.Add(entry.wide_path)) {
      return Refuse(error, kDuplicateFile);
    }
    journal.entries.push_back(std::move(entry));
  }
  return IsValidCount(journal.entries.size()) ? true : Refuse(error, kCountInvalid);
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
  return text.size() <= kJournalSizeLimit ? true : Refuse(error, kTooLarge);
}

bool SaveRollbackJournal(const std::wstring& path, const RollbackJournal& journal, UpdateError& error) {
  std::string text;
  return FormatRollbackJournal(journal, text, error) &&
         ReplaceWholeFile(path, path + std::wstring(kTemporarySuffix), AsBytes(text), kSaveFailed,
                          MoveFailureText::kPrefixOfWindowsText, error);
}

bool ParseRollbackJournal(const std::wstring& path, RollbackJournal& journal, UpdateError& error) {
  journal = {};
  ByteBuffer bytes;
  return ReadWholeFile(path, kJournalSizeLimit, bytes, error) &&
         ParseRollbackJournalText(AsText(bytes), journal, error);
}

}  // namespace talvex
