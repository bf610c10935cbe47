#include "formats/apply_plan.h"

#include <set>

#include "core/ascii_case.h"
#include "core/text_encoding.h"
#include "formats/relative_path.h"
#include "formats/text_lines.h"

namespace talvex {
namespace {

constexpr char kMagic[] = "TALVEX-APPLY-V1";
constexpr char kDigestKey[] = "manifest-sha256";
constexpr char kInstallKey[] = "file";
constexpr char kRetireKey[] = "delete";
constexpr std::size_t kMinLines = 3;

constexpr wchar_t kEncodingInvalid[] = L"The update apply plan has an invalid encoding.";
constexpr wchar_t kIncomplete[] = L"The update apply plan is incomplete.";
constexpr wchar_t kHeaderInvalid[] = L"The update apply plan header is invalid.";
constexpr wchar_t kDigestMissing[] = L"The update apply plan has no manifest digest.";
constexpr wchar_t kOtherManifest[] = L"The update apply plan targets a different manifest.";
constexpr wchar_t kRowInvalid[] = L"The update apply plan has an invalid file row.";
constexpr wchar_t kDuplicateFile[] = L"The update apply plan contains a duplicate file.";
constexpr wchar_t kUnprovenRemoval[] = L"The update apply plan cannot prove a managed file removal.";
constexpr wchar_t kUnsignedFile[] = L"The update apply plan contains a file outside the signed manifest.";
constexpr wchar_t kDeletesCurrent[] = L"The update apply plan tries to delete a current file.";
constexpr wchar_t kNoFiles[] = L"The update apply plan contains no files.";

struct PlanRow {
  bool retire = false;
  std::wstring normalised_path;
};

bool ParseRow(std::string_view line, PlanRow& row, UpdateError& error) {
  row.retire = ConsumeKey(line, kRetireKey);
  if (!row.retire && !ConsumeKey(line, kInstallKey)) {
    return Refuse(error, kRowInvalid);
  }
  return ValidateRelativePath(line, row.normalised_path, error);
}

// The signed entry for the row, or null with `error` set.
const ManifestEntry* VerifyRow(const PlanRow& row, const Manifest& new_manifest,
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
  if (line_count < kMinLines || ConsumeLine(text) != kMagic) {
    return Refuse(error, kHeaderInvalid);
  }
  // line 2          "manifest-sha256"  TAB  digest
  std::string_view digest_text = ConsumeLine(text);
  if (!ConsumeKey(digest_text, kDigestKey)) {
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
    if (!ParseRow(ConsumeLine(text), row, error)) {
      return false;
    }
    if (!seen_paths.insert(FoldAsciiCase(row.normalised_path)).second) {
      return Refuse(error, kDuplicateFile);
    }
    const ManifestEntry* const entry = VerifyRow(row, new_manifest, current_manifest, error);
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
