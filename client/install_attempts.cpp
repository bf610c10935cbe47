#include "client/install_attempts.h"

#include <windows.h>

#include <algorithm>
#include <string_view>

#include "client/work_directory.h"
#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/text_lines.h"
#include "storage/client_notes.h"

namespace talvex::client {
namespace {

constexpr char kMagic[] = "TALVEX-UPDATE-ATTEMPTS-V1";
constexpr char kDigestKey[] = "manifest-sha256";
constexpr char kCountKey[] = "count";
constexpr char kLastKey[] = "last";
constexpr std::uint32_t kSizeLimit = 1'024;  // bytes

constexpr std::uint64_t kFreeAttempts = 3;
constexpr std::uint64_t kFirstPause = 3'600;  // seconds
constexpr std::uint64_t kPauseFactor = 4;
constexpr std::uint64_t kMaxPause = 86'400;  // seconds

// FILETIME counts units of 100 ns since 1601.
constexpr std::uint64_t kUnitsPerSecond = 10'000'000;
constexpr std::uint64_t kSecondsFrom1601To1970 = 11'644'473'600;

struct Attempts {
  Sha256Digest digest;
  std::uint64_t count = 0;
  std::uint64_t last = 0;  // seconds since 1970
};

std::uint64_t Now() {
  FILETIME time{};
  GetSystemTimeAsFileTime(&time);
  const std::uint64_t units = (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
  return units / kUnitsPerSecond - kSecondsFrom1601To1970;
}

// A file that does not exist or cannot be used counts as no attempts.
Attempts LoadAttempts(const std::wstring& client_root) {
  ByteBuffer bytes;
  UpdateError unreported;
  if (!ReadWholeFile(AttemptsPath(client_root), kSizeLimit, bytes, unreported) ||
      !IsLineText(AsText(bytes), kSizeLimit)) {
    return {};
  }
  std::string_view text = AsText(bytes);
  std::string_view digest;
  std::string_view count;
  std::string_view last;
  Attempts attempts;
  const bool is_valid = ConsumeLine(text) == kMagic &&
                        ParseKeyedValue(ConsumeLine(text), kDigestKey, digest) &&
                        ParseKeyedValue(ConsumeLine(text), kCountKey, count) &&
                        ParseKeyedValue(ConsumeLine(text), kLastKey, last) && text.empty() &&
                        ParseHexDigest(digest, attempts.digest) && ParseDecimalU64(count, attempts.count) &&
                        ParseDecimalU64(last, attempts.last);
  return is_valid ? attempts : Attempts{};
}

std::uint64_t PauseAfter(std::uint64_t count) {
  std::uint64_t pause = count < kFreeAttempts ? 0 : kFirstPause;
  for (std::uint64_t i = kFreeAttempts; i < count && pause < kMaxPause; ++i) {
    pause = std::min(pause * kPauseFactor, kMaxPause);
  }
  return pause;
}

}  // namespace

std::uint64_t SecondsUntilNextAttempt(const std::wstring& client_root, const Sha256Digest& manifest_digest) {
  const Attempts attempts = LoadAttempts(client_root);
  if (attempts.count == 0 || !DigestsEqual(attempts.digest, manifest_digest)) {
    return 0;
  }
  const std::uint64_t now = Now();
  const std::uint64_t pause = PauseAfter(attempts.count);
  // A time to come is one of a clock that was wrong: it must not postpone anything.
  return now < attempts.last || now - attempts.last >= pause ? 0 : pause - (now - attempts.last);
}

std::uint64_t CountAttempts(const std::wstring& client_root, const Sha256Digest& manifest_digest) {
  const Attempts attempts = LoadAttempts(client_root);
  return DigestsEqual(attempts.digest, manifest_digest) ? attempts.count : 0;
}

void RecordAttempt(const std::wstring& client_root, const Sha256Digest& manifest_digest) {
  const std::uint64_t count = CountAttempts(client_root, manifest_digest) + 1;
  std::string text(kMagic);
  text.append("\n").append(kDigestKey).append("\t").append(WideToUtf8(DigestToHex(manifest_digest)));
  text.append("\n").append(kCountKey).append("\t").append(std::to_string(count));
  text.append("\n").append(kLastKey).append("\t").append(std::to_string(Now())).append("\n");
  const std::wstring path = AttemptsPath(client_root);
  const std::wstring temporary = TemporaryPath(path);
  UpdateError unreported;
  static_cast<void>(
      ClearFileName(client_root, path, unreported) && ClearFileName(client_root, temporary, unreported) &&
      ReplaceWholeFile(path, temporary, AsBytes(text), L"", MoveFailureText::kSentence, unreported));
}

void ForgetAttempts(const std::wstring& client_root) {
  DeleteFileW(AttemptsPath(client_root).c_str());
}

}  // namespace talvex::client
