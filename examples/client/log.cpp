#include "examples/client/log.h"

#include <windows.h>

#include <array>
#include <string>

#include "core/owned_handle.h"
#include "core/text_encoding.h"

namespace talvex::example {
namespace {

HANDLE g_output = nullptr;

void WriteTo(HANDLE file, const std::string& text) {
  DWORD written = 0;
  WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

}  // namespace

void OpenLog() {
  const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
  g_output = GetFileType(output) == FILE_TYPE_UNKNOWN ? nullptr : output;
}

void LogLine(std::wstring_view line) {
  const std::string text = WideToUtf8(line) + "\n";
  if (g_output != nullptr) {
    WriteTo(g_output, text);
  }
  std::array<wchar_t, MAX_PATH> path{};
  const DWORD length = GetEnvironmentVariableW(kLogVariable, path.data(), static_cast<DWORD>(path.size()));
  if (length == 0 || length >= path.size()) {
    return;
  }
  const OwnedHandle file(CreateFileW(path.data(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                     nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (file.IsValid()) {
    WriteTo(file.Get(), text);
  }
}

}  // namespace talvex::example
