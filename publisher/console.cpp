#include "publisher/console.h"

#include <windows.h>

#include <cstddef>

#include "core/text_encoding.h"
#include "publisher/unit_escape.h"

namespace talvex {
namespace {

// A console takes only so much at once: older ones fail above 64 KiB.
constexpr std::size_t kConsolePiece = 8'192;  // UTF-16 code units

bool has_lost_output = false;

HANDLE HandleOf(Stream stream) {
  return GetStdHandle(stream == Stream::kOutput ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
}

bool IsHighSurrogate(wchar_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}

bool IsLowSurrogate(wchar_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

bool SteersTerminals(wchar_t unit) {
  return unit < 0x20 || (unit >= 0x7F && unit <= 0x9F) ||  // C0, DEL, C1
         unit == 0x061C || unit == 0x200E || unit == 0x200F || (unit >= 0x2028 && unit <= 0x202E) ||
         (unit >= 0x2066 && unit <= 0x2069);  // marks of direction, separators of lines
}

std::wstring Displayable(std::wstring_view line) {
  std::wstring shown;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const wchar_t unit = line[i];
    if (IsHighSurrogate(unit) && i + 1 < line.size() && IsLowSurrogate(line[i + 1])) {
      shown += {unit, line[++i]};
    } else if (SteersTerminals(unit) || IsHighSurrogate(unit) || IsLowSurrogate(unit)) {
      shown += EscapeUnit(unit);
    } else {
      shown += unit;
    }
  }
  return shown + L"\r\n";
}

void WriteToConsole(HANDLE console, std::wstring_view text) {
  while (!text.empty()) {
    const std::wstring_view piece = text.substr(0, kConsolePiece);
    DWORD written = 0;
    if (!WriteConsoleW(console, piece.data(), static_cast<DWORD>(piece.size()), &written, nullptr) ||
        written == 0) {
      has_lost_output = true;
      return;
    }
    text.remove_prefix(written);
  }
}

}  // namespace

void WriteLine(Stream stream, std::wstring_view line) {
  const HANDLE output = HandleOf(stream);
  if (output == nullptr || output == INVALID_HANDLE_VALUE) {
    return;  // started without standard handles
  }
  const std::wstring shown = Displayable(line);
  if (IsConsole(stream)) {
    WriteToConsole(output, shown);
    return;
  }
  const std::string utf8 = WideToUtf8(shown);
  DWORD written = 0;
  if (!WriteFile(output, utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr) ||
      written != utf8.size()) {
    has_lost_output = true;
  }
}

void WriteLines(Stream stream, std::wstring_view text) {
  for (std::size_t end = 0; (end = text.find(L'\n')) != std::wstring_view::npos;) {
    WriteLine(stream, text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  WriteLine(stream, text);
}

bool HasLostOutput() {
  return has_lost_output;
}

bool IsConsole(Stream stream) {
  DWORD mode = 0;
  return GetConsoleMode(HandleOf(stream), &mode) != 0;
}

}  // namespace talvex
