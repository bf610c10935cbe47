#include "formats/apply_plan.h"

#include <set>

#include "core/ascii_case.h"
#include "core/text_encoding.h"
#include "formats/relative_path.h"
#include "formats/text_lines.h"

namespace talvex {
namespace {

constexpr std::string_view kMagic = "TALVEX-APPLY-V1";
constexpr std::string_view kDigestKey = "manifest-sha256";
constexpr std::string_view kInstallKey = "file";
constexpr std::string_view kRetireKey = "delete";
constexpr std::size_t kLeastLines = 3;

constexpr std::wstring_view kEncodingInvalid = L"The update apply plan has an invalid encoding.";
constexpr std::wstring_view kIncomplete = L"The update apply plan is incomplete.";
constexpr std::wstring_view kHeaderInvalid = L"The update apply plan header is invalid.";
constexpr std::wstring_view kDigestMissing = L"The update apply plan has no manifest digest.";
constexpr std::wstring_view kOtherManifest = L"The update apply plan targets a different manifest.";
constexpr std::wstring_view kRowInvalid = L"The update apply plan has an invalid file row.";
constexpr std::wstring_view kDuplicateFile = L"The update apply plan contains a duplicate file.";
constexpr std::wstring_view kUnprovenRemoval = L"The update apply plan cannot prove a managed file removal.";
constexpr std::wstring_view kUnsignedFile =
    L"The update apply plan contains a file outside the signed manifest.";
constexpr std::wstring_view kDeletesCurrent = L"The update apply plan tries to delete a current file.";
constexpr std::wstring_view kNoFiles = L"The update apply plan contains no files.";

struct PlanRow {
  bool retire = false;
  std::wstring normalised_path;
};

bool ParseRow(std::string_view line, PlanRow& row, UpdateError& error) {
  row.retire = TakeKey(line, kRetireKey);
  if (!row.retire && !TakeKey(line, kInstallKey)) {
    return Refuse(error, kRowInvalid);
  }
  return ValidateRelativePath(line, row.normalised_path, error);
}

// The entry that vouches for the row, or null with `error` set.
const ManifestEntry* ProveRow(const PlanRow& row, const Manifest& new_manifest,
                              const Manifest* current_manifest, UpdateError& error) {
  const Manifest* const vouching = row.retire ? current_manifest : &new_manifest;
  if (vouching == nullptr) {
    SetError(error, kUnprovenRemoval);
    return nullptr;
  }
  const ManifestEntry* const entry = FindManifestEntryIgnoringCase(*vouching, row.normalised_path);
  if (entry == nullptr) {
    SetError(error, kUnsignedFile);
    return nullptr;
  }
  if (row.retire && FindManifestEntryIgnoringCase(new_manifest, row.normalised_path) != nullptr) {
    SetError(error, kDeletesCurrent);
    return nullptr;
  }
  return entry;
}

}  // namespace

bool ParseApplyPlan(std::span<const std::byte> bytes, const Manifest& new_manifest,
                    const Manifest* current_manifest, const Sha256Digest& manifest_digest,
                    std::vector<const ManifestEntry*>& install_entries,
                    std::vector<const ManifestEntry*>& retire_entries, UpdateError& error) {
  install_entries.clear();
  retire_entries.clear();
  std::string_view text = AsText(bytes);
  if (!IsLineText(text, kApplyPlanSizeLimit)) {
    return Refuse(error, kEncodingInvalid);
  }
  std::size_t line_count = 0;
  if (!CountLines(text, line_count)) {
    return Refuse(error, kIncomplete);
  }
  // line 1          the magic, the whole line
  if (line_count < kLeastLines || TakeLine(text) != kMagic) {
    return Refuse(error, kHeaderInvalid);
  }
  // line 2          "manifest-sha256"  TAB  digest
  std::string_view digest_text = TakeLine(text);
  if (!TakeKey(digest_text, kDigestKey)) {
    return Refuse(error, kDigestMissing);
  }
  Sha256Digest digest;
  if (!ParseHexDigest(digest_text, digest) || !DigestsEqual(digest, manifest_digest)) {
    return Refuse(error, kOtherManifest);
  }
  // line 3 and on   "file" or "delete"  TAB  relative path
  std::set<std::wstring> seen_paths;
  while (!text.empty()) {
    PlanRow row;
    if (!ParseRow(TakeLine(text), row, error)) {
      return false;
    }
    if (!seen_paths.insert(FoldAsciiCase(row.normalised_path)).second) {
      return Refuse(error, kDuplicateFile);
    }
    const ManifestEntry* const entry = ProveRow(row, new_manifest, current_manifest, error);
    if (entry == nullptr) {
      return false;
    }
    (row.retire ? retire_entries : install_entries).push_back(entry);
  }
  if (install_entries.empty() && retire_entries.empty()) {
    return Refuse(error, kNoFiles);
  }
  return true;
}

std::string FormatApplyPlan(const Sha256Digest& manifest_digest,
                            std::span<const ManifestEntry* const> install_entries,
                            std::span<const ManifestEntry* const> retire_entries) {
  std::string text(kMagic);
  text.append("\n").append(kDigestKey).append("\t").append(WideToUtf8(DigestToHex(manifest_digest)));
  text.append("\n");
  for (const ManifestEntry* const entry : install_entries) {
    text.append(kInstallKey).append("\t").append(entry->path).append("\n");
  }
  for (const ManifestEntry* const entry : retire_entries) {
    text.append(kRetireKey).append("\t").append(entry->path).append("\n");
  }
  return text;
}

}  // namespace talvex
