#include "publisher/console.h"

#include <windows.h>

#include <cstddef>
#include <string>

namespace talvex {

void WriteLine(Stream stream, std::wstring_view line) {
  const HANDLE output = GetStdHandle(stream == Stream::kOutput ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
  const std::wstring text = std::wstring(line) + L"\r\n";
  const int length = static_cast<int>(text.size());
  DWORD mode = 0;
  DWORD written = 0;
  if (GetConsoleMode(output, &mode)) {
    WriteConsoleW(output, text.data(), static_cast<DWORD>(length), &written, nullptr);
    return;
  }
  // Not WideToUtf8, whose strictness would drop the whole line.
  const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), length, utf8.data(), size, nullptr, nullptr);
  WriteFile(output, utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr);
}

}  // namespace talvex
