#include "formats/manifest.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <set>
#include <utility>

#include "core/ascii_case.h"
#include "core/sha256.h"
#include "core/text_encoding.h"
#include "formats/relative_path.h"
#include "formats/text_lines.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr char kMagic[] = "TALVEX-UPDATE-V1";
constexpr char kReleaseKey[] = "release";
constexpr char kSequenceKey[] = "sequence";
constexpr char kFileKey[] = "file";
constexpr std::size_t kMinLines = 4;
constexpr std::size_t kReleaseLengthLimit = 64;

constexpr wchar_t kNotLineText[] = L"The update manifest must be UTF-8 text with LF line endings.";
constexpr wchar_t kIncomplete[] = L"The update manifest is incomplete.";
constexpr wchar_t kHeaderInvalid[] = L"The update manifest header is invalid.";
constexpr wchar_t kReleaseInvalid[] = L"The update manifest release is invalid.";
constexpr wchar_t kSequenceInvalid[] = L"The update manifest sequence is invalid.";
constexpr wchar_t kRowInvalid[] = L"The update manifest contains an invalid file row.";
constexpr wchar_t kFileDataInvalid[] = L"The update manifest contains invalid file data.";
constexpr wchar_t kDuplicatePath[] = L"The update manifest contains a duplicate path.";
constexpr wchar_t kUpdaterState[] = L"The update manifest targets updater state.";
constexpr wchar_t kReleaseTooLarge[] = L"The update manifest exceeds the release size limit.";
constexpr wchar_t kTooManyFiles[] = L"The update manifest contains too many files.";
constexpr wchar_t kNoFiles[] = L"The update manifest contains no files.";

bool IsAsciiAlphanumeric(char byte) {
  return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9');
}

// Repeats a check of the path rules: even without them, a manifest must never overwrite the record by which
// the next one is judged.
bool IsUpdaterState(std::wstring_view path) {
  const std::wstring_view top = path.substr(0, path.find(L'\\'));
  return EqualIgnoringAsciiCase(path, kInstalledStateFileName) ||
         EqualIgnoringAsciiCase(path, kFailureMarkerFileName) ||
         EqualIgnoringAsciiCase(path, TemporaryPath(kFailureMarkerFileName)) ||
         EqualIgnoringAsciiCase(top, kWorkDirectoryName) || EqualIgnoringAsciiCase(top, kCacheDirectoryName);
}

// "file"  TAB  size  TAB  SHA-256  TAB  relative path
bool ParseFileRow(std::string_view line, ManifestEntry& entry, UpdateError& error) {
  std::array<std::string_view, 4> fields;
  if (!SplitFields(line, fields) || fields[0] != kFileKey) {
    return Refuse(error, kRowInvalid);
  }
  if (!ParseDecimalU64(fields[1], entry.size) || entry.size == 0 || entry.size > kManagedFileSizeLimit) {
    return Refuse(error, kFileDataInvalid);
  }
  if (!ParseHexDigest(fields[2], entry.digest)) {
    return Refuse(error, kFileDataInvalid);
  }
  if (!ValidateRelativePath(fields[3], entry.normalised_path, error)) {
    return RefuseUnlessExplained(error, kFileDataInvalid);
  }
  entry.path = fields[3];
  return true;
}

bool ParseFileRows(std::string_view rows, Manifest& manifest, UpdateError& error) {
  std::set<std::wstring> seen_paths;
  std::uint64_t total_size = 0;
  while (!rows.empty()) {
    ManifestEntry entry;
    if (!ParseFileRow(ConsumeLine(rows), entry, error)) {
      return false;
    }
    if (!seen_paths.insert(FoldAsciiCase(entry.normalised_path)).second) {
      return Refuse(error, kDuplicatePath);
    }
    if (IsUpdaterState(entry.normalised_path)) {
      return Refuse(error, kUpdaterState);
    }
    if (entry.size > kReleaseSizeLimit - total_size) {
      return Refuse(error, kReleaseTooLarge);
    }
    total_size += entry.size;
    manifest.entries.push_back(std::move(entry));
    if (manifest.entries.size() > kManifestFileLimit) {
      return Refuse(error, kTooManyFiles);
    }
  }
  return true;
}

}  // namespace

bool ParseManifest(std::span<const std::byte> bytes, Manifest& manifest, UpdateError& error) {
  manifest = {};
  std::string_view text = AsText(bytes);
  if (!IsLineText(text, kManifestSizeLimit)) {
    return Refuse(error, kNotLineText);
  }
  std::size_t line_count = 0;
  if (!CountLines(text, line_count)) {
    return Refuse(error, kIncomplete);
  }
  // line 1          the magic, the whole line
  if (line_count < kMinLines || ConsumeLine(text) != kMagic) {
    return Refuse(error, kHeaderInvalid);
  }
  // line 2          "release"   TAB  identifier
  std::string_view release;
  if (!ParseKeyedValue(ConsumeLine(text), kReleaseKey, release) || !IsReleaseIdentifier(release)) {
    return Refuse(error, kReleaseInvalid);
  }
  manifest.release = release;
  // line 3          "sequence"  TAB  decimal, not 0
  std::string_view sequence;
  if (!ParseKeyedValue(ConsumeLine(text), kSequenceKey, sequence) ||
      !ParseDecimalU64(sequence, manifest.sequence) || manifest.sequence == 0) {
    return Refuse(error, kSequenceInvalid);
  }
  // line 4 and on   file rows
  if (!ParseFileRows(text, manifest, error)) {
    return false;
  }
  if (manifest.entries.empty()) {
    return Refuse(error, kNoFiles);
  }
  return Sha256OfBuffer(bytes, manifest.digest, error);
}

std::string FormatManifest(const Manifest& manifest) {
  std::string text(kMagic);
  text.append("\n").append(kReleaseKey).append("\t").append(manifest.release);
  text.append("\n").append(kSequenceKey).append("\t").append(std::to_string(manifest.sequence)).append("\n");
  for (const ManifestEntry& entry : manifest.entries) {
    text.append(kFileKey).append("\t").append(std::to_string(entry.size)).append("\t");
    text.append(WideToUtf8(DigestToHex(entry.digest))).append("\t").append(entry.path).append("\n");
  }
  return text;
}

bool IsReleaseIdentifier(std::string_view text) noexcept {
  return !text.empty() && text.size() <= kReleaseLengthLimit && IsAsciiAlphanumeric(text.front()) &&
         text.back() != '.' && std::all_of(text.begin(), text.end(), [](char byte) {
           return IsAsciiAlphanumeric(byte) || byte == '.' || byte == '_' || byte == '-';
         });
}

const ManifestEntry* FindManifestEntry(const Manifest& manifest, std::wstring_view normalised_path) noexcept {
  const auto found =
      std::find_if(manifest.entries.begin(), manifest.entries.end(), [&](const ManifestEntry& entry) {
        return std::wstring_view(entry.normalised_path) == normalised_path;
      });
  return found == manifest.entries.end() ? nullptr : &*found;
}

const ManifestEntry* FindManifestEntryIgnoringCase(const Manifest& manifest,
                                                   std::wstring_view normalised_path) noexcept {
  const auto found =
      std::find_if(manifest.entries.begin(), manifest.entries.end(), [&](const ManifestEntry& entry) {
        return EqualIgnoringAsciiCase(entry.normalised_path, normalised_path);
      });
  return found == manifest.entries.end() ? nullptr : &*found;
}

std::uint64_t TotalSize(const Manifest& manifest) noexcept {
  return std::accumulate(manifest.entries.begin(), manifest.entries.end(), std::uint64_t{0},
                         [](std::uint64_t sum, const ManifestEntry& entry) { return sum + entry.size; });
}

}  // namespace talvex
