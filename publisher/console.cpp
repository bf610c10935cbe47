#include "publisher/console.h"

#include <windows.h>

#include <cstddef>

#include "core/text_encoding.h"
#include "publisher/unit_escape.h"

namespace talvex {
namespace {

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

}  // namespace

void WriteLine(Stream stream, std::wstring_view line) {
  const HANDLE output = HandleOf(stream);
  const std::wstring shown = Displayable(line);
  DWORD written = 0;
  if (IsConsole(stream)) {
    WriteConsoleW(output, shown.data(), static_cast<DWORD>(shown.size()), &written, nullptr);
    return;
  }
  const std::string utf8 = WideToUtf8(shown);
  WriteFile(output, utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr);
}

void WriteLines(Stream stream, std::wstring_view text) {
  for (std::size_t end = 0; (end = text.find(L'\n')) != std::wstring_view::npos;) {
    WriteLine(stream, text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  WriteLine(stream, text);
}

bool IsConsole(Stream stream) {
  DWORD mode = 0;
  return GetConsoleMode(HandleOf(stream), &mode) != 0;
}

}  // namespace talvex
