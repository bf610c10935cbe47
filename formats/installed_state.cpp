#include "formats/installed_state.h"

#include <windows.h>

#include <cstddef>
#include <utility>

#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/text_lines.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr char kMagic[] = "TALVEX-UPDATE-STATE-V1";
constexpr char kSequenceKey[] = "sequence";
constexpr char kReleaseKey[] = "release";
constexpr char kDigestKey[] = "manifest-sha256";
constexpr std::size_t kLines = 4;
constexpr std::uint32_t kSizeLimit = 4'096;  // bytes

constexpr wchar_t kEncodingInvalid[] = L"The installed update state has an invalid encoding.";
constexpr wchar_t kIncomplete[] = L"The installed update state is incomplete.";
constexpr wchar_t kFormatInvalid[] = L"The installed update state has an invalid format.";
constexpr wchar_t kReleaseInvalid[] = L"The installed update state has invalid release information.";
constexpr wchar_t kDigestInvalid[] = L"The installed update state has an invalid manifest digest.";
constexpr wchar_t kSaveFailed[] = L"Could not save the installed update state";

}  // namespace

bool ParseInstalledStateText(std::string_view text, InstalledState& state, UpdateError& error) {
  state = {};
  if (!IsLineText(text, kSizeLimit)) {
    return Refuse(error, kEncodingInvalid);
  }
  std::size_t line_count = 0;
  if (!CountLines(text, line_count)) {
    return Refuse(error, kIncomplete);
  }
  // line 1          the magic, the whole line
  if (line_count != kLines || ConsumeLine(text) != kMagic) {
    return Refuse(error, kFormatInvalid);
  }
  InstalledState parsed;
  // line 2          "sequence"         TAB  decimal, not 0
  std::string_view value;
  if (!ParseKeyedValue(ConsumeLine(text), kSequenceKey, value) || !ParseDecimalU64(value, parsed.sequence) ||
      parsed.sequence == 0) {
    return Refuse(error, kReleaseInvalid);
  }
  // line 3          "release"          TAB  identifier
  if (!ParseKeyedValue(ConsumeLine(text), kReleaseKey, value) || !IsReleaseIdentifier(value)) {
    return Refuse(error, kReleaseInvalid);
  }
  parsed.release = value;
  // line 4          "manifest-sha256"  TAB  digest
  if (!ParseKeyedValue(ConsumeLine(text), kDigestKey, value) ||
      !ParseHexDigest(value, parsed.manifest_digest)) {
    return Refuse(error, kDigestInvalid);
  }
  parsed.present = true;
  state = std::move(parsed);
  return true;
}

std::string FormatInstalledState(const Manifest& installed) {
  std::string text(kMagic);
  text.append("\n").append(kSequenceKey).append("\t").append(std::to_string(installed.sequence));
  text.append("\n").append(kReleaseKey).append("\t").append(installed.release);
  text.append("\n").append(kDigestKey).append("\t").append(WideToUtf8(DigestToHex(installed.digest)));
  text.append("\n");
  return text;
}

bool LoadInstalledState(std::wstring_view client_root, InstalledState& state, UpdateError& error) {
  state = {};
  const std::wstring path = InstalledStatePath(client_root);
  const PathKind kind = ProbePath(path);
  if (kind == PathKind::kAbsent || kind == PathKind::kUnknown) {
    return true;  // a record that cannot be inspected counts as none
  }
  ByteBuffer bytes;
  return ReadWholeFile(path, kSizeLimit, bytes, error) &&
         ParseInstalledStateText(AsText(bytes), state, error);
}

bool SaveInstalledState(std::wstring_view client_root, const Manifest& installed, UpdateError& error) {
  const std::wstring path = InstalledStatePath(client_root);
  const std::wstring temporary_path = InstalledStateTemporaryPath(client_root, GetCurrentProcessId());
  return ReplaceWholeFile(path, temporary_path, AsBytes(FormatInstalledState(installed)), kSaveFailed,
                          MoveFailureText::kPrefixOfWindowsText, error);
}

}  // namespace talvex
