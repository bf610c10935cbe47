#include "publisher/progress.h"

#include <string>

#include "formats/managed_file.h"
#include "publisher/console.h"

namespace talvex {
namespace {

constexpr ULONGLONG kIntervalMs = 2'000;

}  // namespace

Progress::Progress(const wchar_t* verb, std::uint64_t total)
    : verb_(verb), total_(total), last_line_ms_(GetTickCount64()), is_watched_(IsConsole(Stream::kError)) {}

void Progress::Report(std::uint64_t bytes_of_file, void* context) {
  Progress& self = *static_cast<Progress*>(context);
  const ULONGLONG now = GetTickCount64();
  if (!self.is_watched_ || now - self.last_line_ms_ < kIntervalMs) {
    return;
  }
  self.last_line_ms_ = now;
  WriteLine(Stream::kError, std::wstring(self.verb_) + L" " +
                                std::to_wstring((self.finished_ + bytes_of_file) / kBytesPerMiB) + L" of " +
                                std::to_wstring(self.total_ / kBytesPerMiB) + L" MiB");
}

}  // namespace talvex
