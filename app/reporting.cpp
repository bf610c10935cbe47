#include "app/reporting.h"

#include <windows.h>

#include <string>

#include "core/text_encoding.h"

namespace talvex {
namespace {

constexpr wchar_t kUnexplainedFailure[] = L"The update failed. Your existing files were restored.";

}  // namespace

bool console_reporting = false;

void WriteConsoleLine(std::wstring_view text) {
  // Fails when there is no console, or one is attached already; standard output may be a file or a pipe.
  AttachConsole(ATTACH_PARENT_PROCESS);
  const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
  if (output == nullptr || output == INVALID_HANDLE_VALUE) {
    return;
  }
  std::wstring line(text);
  line += L"\r\n";
  const std::string bytes = WideToUtf8(line);
  DWORD written = 0;
  WriteFile(output, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

void ShowUpdateFailure(const wchar_t* message) {
  if (console_reporting) {
    WriteConsoleLine(std::wstring(kErrorPrefix) + message);
    return;
  }
  MessageBoxW(nullptr, *message == L'\0' ? kUnexplainedFailure : message, kUpdateCaption,
              MB_OK | MB_ICONERROR | MB_SETFOREGROUND);
}

void ShowNotice(const wchar_t* caption, const wchar_t* message) {
  if (!console_reporting) {
    MessageBoxW(nullptr, message, caption, MB_OK | MB_ICONWARNING | MB_SETFOREGROUND);
  }
}

}  // namespace talvex
