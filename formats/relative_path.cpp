#include "formats/relative_path.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "core/ascii_case.h"
#include "core/text_encoding.h"

namespace talvex {
namespace {

constexpr std::size_t kPathLimit = 220;  // bytes
constexpr std::size_t kSegmentLimit = 100;
constexpr std::wstring_view kForbiddenInSegment = L"<>:\"|?*";

constexpr std::wstring_view kUnsafePath = L"The update manifest contains an unsafe relative path.";
constexpr std::wstring_view kOutsideAscii =
    L"The update manifest path is outside the supported ASCII file-name set.";
constexpr std::wstring_view kNotUtf8 = L"The update manifest path is not valid UTF-8.";
constexpr std::wstring_view kUnsafeSegment = L"The update manifest contains an unsafe path segment.";
constexpr std::wstring_view kForbidden = L"The update manifest path contains a forbidden character.";
constexpr std::wstring_view kUpdaterState = L"The update manifest path targets updater state.";

enum class Match { kWhole, kPrefix };
struct UpdaterName {
  Match match;
  std::wstring_view name;
};
// Folded to lower case. The state file's temporary names carry a process id and so are matched by their
// beginning; the failure marker has one temporary name only.
constexpr std::array<UpdaterName, 8> kUpdaterNames = {{
    {Match::kWhole, L"talvexupdatestate.dat"},
    {Match::kPrefix, L"talvexupdatestate.dat.new"},
    {Match::kWhole, L"talvexupdatefailure.dat"},
    {Match::kWhole, L"talvexupdatefailure.dat.new"},
    {Match::kWhole, L".talvex-update"},
    {Match::kPrefix, L".talvex-update\\"},
    {Match::kWhole, L".talvex-update-cache"},
    {Match::kPrefix, L".talvex-update-cache\\"},
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
  // Unreachable behind the byte set above; kept, so that widening that set can never admit these.
  if (std::any_of(segment.begin(), segment.end(), [](wchar_t unit) {
        return unit < 0x20 || kForbiddenInSegment.find(unit) != std::wstring_view::npos;
      })) {
    return Refuse(error, kForbidden);
  }
  return true;
}

bool TargetsUpdaterState(std::wstring_view normalised_path) {
  const std::wstring folded = FoldAsciiCase(normalised_path);
  return std::any_of(kUpdaterNames.begin(), kUpdaterNames.end(), [&](const UpdaterName& updater) {
    return updater.match == Match::kWhole ? folded == updater.name : folded.starts_with(updater.name);
  });
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
