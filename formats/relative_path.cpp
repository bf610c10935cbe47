#include "formats/relative_path.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "core/ascii_case.h"
#include "core/text_encoding.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr std::size_t kPathLimit = 220;  // bytes
constexpr std::size_t kSegmentLimit = 100;
constexpr wchar_t kForbiddenInSegment[] = L"<>:\"|?*";

constexpr wchar_t kUnsafePath[] = L"The update manifest contains an unsafe relative path.";
constexpr wchar_t kOutsideAscii[] = L"The update manifest path is outside the supported ASCII file-name set.";
constexpr wchar_t kNotUtf8[] = L"The update manifest path is not valid UTF-8.";
constexpr wchar_t kUnsafeSegment[] = L"The update manifest contains an unsafe path segment.";
constexpr wchar_t kForbidden[] = L"The update manifest path contains a forbidden character.";
constexpr wchar_t kUpdaterState[] = L"The update manifest path targets updater state.";

// The updater's own paths: a name in the client root, and what follows it. The state file's temporary names
// contain a process id and are therefore matched by prefix; the failure marker has only one temporary name.
enum class Match { kWhole, kPrefix };
struct UpdaterPath {
  Match match;
  std::wstring_view name;
  std::wstring_view rest;
};
constexpr std::array<UpdaterPath, 8> kUpdaterPaths = {{
    {Match::kWhole, kInstalledStateFileName, L""},
    {Match::kPrefix, kInstalledStateFileName, kTemporarySuffix},
    {Match::kWhole, kFailureMarkerFileName, L""},
    {Match::kWhole, kFailureMarkerFileName, kTemporarySuffix},
    {Match::kWhole, kWorkDirectoryName, L""},
    {Match::kPrefix, kWorkDirectoryName, L"\\"},
    {Match::kWhole, kCacheDirectoryName, L""},
    {Match::kPrefix, kCacheDirectoryName, L"\\"},
}};

bool IsAllowedByte(char byte) {
  return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
         byte == '.' || byte == '_' || byte == '-' || byte == '/';
}

bool ValidateSegment(std::wstring_view segment, UpdateError& error) {
  if (segment.empty() || segment == L"." || segment == L".." || segment.size() > kSegmentLimit ||
      segment.back() == L'.' || segment.back() == L' ' || IsReservedDeviceName(segment)) {
    return Refuse(error, kUnsafeSegment);
  }
  // Unreachable because of the byte set above; kept so that widening that set can never admit these.
  if (std::any_of(segment.begin(), segment.end(), [](wchar_t unit) {
        return unit < 0x20 || std::wstring_view(kForbiddenInSegment).find(unit) != std::wstring_view::npos;
      })) {
    return Refuse(error, kForbidden);
  }
  return true;
}

bool Matches(std::wstring_view path, const UpdaterPath& updater) {
  const std::size_t name_length = updater.name.size();
  if (!EqualIgnoringAsciiCase(path.substr(0, name_length), updater.name)) {
    return false;
  }
  const std::wstring_view rest = path.substr(name_length);
  return EqualIgnoringAsciiCase(updater.match == Match::kWhole ? rest : rest.substr(0, updater.rest.size()),
                                updater.rest);
}

bool ValidateSegments(std::wstring_view normalised_path, UpdateError& error) {
  for (;;) {
    const std::size_t separator = normalised_path.find(L'\\');
    if (!ValidateSegment(normalised_path.substr(0, separator), error)) {
      return false;
    }
    if (separator == std::wstring_view::npos) {
      return true;
    }
    normalised_path.remove_prefix(separator + 1);
  }
}

}  // namespace

bool ValidateRelativePath(std::string_view path, std::wstring& normalised_path, UpdateError& error) {
  normalised_path.clear();
  if (path.empty() || path.size() > kPathLimit || path.front() == '/' || path.back() == '/' ||
      path.find_first_of("\\\t") != std::string_view::npos) {
    return Refuse(error, kUnsafePath);
  }
  if (!std::all_of(path.begin(), path.end(), IsAllowedByte)) {
    return Refuse(error, kOutsideAscii);
  }
  std::wstring normalised = Utf8ToWide(path);
  if (normalised.empty()) {
    return Refuse(error, kNotUtf8);
  }
  std::replace(normalised.begin(), normalised.end(), L'/', L'\\');
  if (!ValidateSegments(normalised, error)) {
    return false;
  }
  if (TargetsUpdaterState(normalised)) {
    return Refuse(error, kUpdaterState);
  }
  normalised_path = std::move(normalised);
  return true;
}

bool TargetsUpdaterState(std::wstring_view normalised_path) {
  return std::any_of(kUpdaterPaths.begin(), kUpdaterPaths.end(),
                     [&](const UpdaterPath& updater) { return Matches(normalised_path, updater); });
}

bool IsReservedDeviceName(std::wstring_view segment) noexcept {
  const std::wstring_view base = segment.substr(0, segment.find(L'.'));
  for (const std::wstring_view device : {L"CON", L"PRN", L"AUX", L"NUL"}) {
    if (EqualIgnoringAsciiCase(base, device)) {
      return true;
    }
  }
  if (base.size() != 4 || base[3] < L'1' || base[3] > L'9') {
    return false;
  }
  return EqualIgnoringAsciiCase(base.substr(0, 3), L"COM") ||
         EqualIgnoringAsciiCase(base.substr(0, 3), L"LPT");
}

}  // namespace talvex
