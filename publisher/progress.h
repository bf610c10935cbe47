#pragma once

// Progress of work that may take minutes, for somebody who watches: lines on standard error, and only if that
// is a console.

#include <windows.h>

#include <cstdint>

namespace talvex {

class Progress {
 public:
  // `verb` begins each line ("Copied"); `total` is in bytes.
  Progress(const wchar_t* verb, std::uint64_t total);

  // Matches HashProgressCallback; `context` is the Progress. Writes a line every two seconds.
  static void Report(std::uint64_t bytes_of_file, void* context);
  void FinishFile(std::uint64_t size) { finished_ += size; }

 private:
  const wchar_t* verb_;
  std::uint64_t total_;         // bytes
  std::uint64_t finished_ = 0;  // bytes of the files before the current one
  ULONGLONG last_line_ms_;
  bool is_watched_;
};

}  // namespace talvex
