#include "tests/support/helper_run.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "storage/client_root.h"

namespace talvex::test {
namespace {

constexpr DWORD kPollMs = 20;
constexpr int kTextOfMessageBox = 0xFFFF;  // the control's id

struct WindowSearch {
  DWORD process_id;
  HelperResult* result;
};

std::wstring TextOf(HWND window) {
  std::array<wchar_t, 2048> text{};
  SendMessageTimeoutW(window, WM_GETTEXT, text.size(), reinterpret_cast<LPARAM>(text.data()),
                      SMTO_ABORTIFHUNG, 1000, nullptr);
  return text.data();
}

BOOL CALLBACK LookAtWindow(HWND window, LPARAM parameter) {
  const auto& search = *reinterpret_cast<WindowSearch*>(parameter);
  DWORD process_id = 0;
  GetWindowThreadProcessId(window, &process_id);
  if (process_id != search.process_id || !IsWindowVisible(window)) {
    return TRUE;
  }
  std::array<wchar_t, 64> name{};
  GetClassNameW(window, name.data(), static_cast<int>(name.size()));
  if (std::wstring_view(name.data()) == L"TalvexUpdateStatusWindowV1") {
    search.result->showed_window = true;
  } else if (std::wstring_view(name.data()) == L"#32770") {
    const HWND control = GetDlgItem(window, kTextOfMessageBox);
    const std::wstring text = control == nullptr ? std::wstring() : TextOf(control);
    const std::wstring caption = TextOf(window);
    if (!text.empty() && !caption.empty()) {  // on a busy machine the answer comes only the next time
      search.result->message = text;
      search.result->caption = caption;
      PostMessageW(window, WM_COMMAND, IDOK, 0);
    }
  }
  return TRUE;
}

std::string ReadToEnd(HANDLE pipe) {
  std::string text;
  std::array<char, 4096> piece{};
  DWORD read = 0;
  while (ReadFile(pipe, piece.data(), static_cast<DWORD>(piece.size()), &read, nullptr) && read != 0) {
    text.append(piece.data(), read);
  }
  return text;
}

}  // namespace

HelperResult RunHelper(const std::wstring& program, const std::vector<std::wstring>& arguments,
                       std::vector<HANDLE> inherited,
                       const std::function<void(DWORD process_id)>& while_running) {
  HelperResult result;
  HANDLE read_end = nullptr;
  HANDLE write_end = nullptr;
  EXPECT_TRUE(CreatePipe(&read_end, &write_end, nullptr, 1 << 16));
  const OwnedHandle console(read_end);
  OwnedHandle output = MakeInheritable(write_end);
  inherited.push_back(output.Get());

  std::array<std::byte, 256> storage{};
  SIZE_T size = storage.size();
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof(startup);
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdOutput = output.Get();
  startup.StartupInfo.hStdError = output.Get();
  startup.lpAttributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage.data());
  EXPECT_TRUE(InitializeProcThreadAttributeList(startup.lpAttributeList, 1, 0, &size) &&
              UpdateProcThreadAttribute(startup.lpAttributeList, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                        inherited.data(), inherited.size() * sizeof(HANDLE), nullptr,
                                        nullptr));
  std::wstring command_line = L"\"" + program + L"\"";
  for (const std::wstring& argument : arguments) {
    command_line += L" \"" + argument + L"\"";
  }
  PROCESS_INFORMATION started{};
  EXPECT_TRUE(CreateProcessW(program.c_str(), command_line.data(), nullptr, nullptr, TRUE,
                             EXTENDED_STARTUPINFO_PRESENT, nullptr, nullptr, &startup.StartupInfo, &started))
      << GetLastError();
  DeleteProcThreadAttributeList(startup.lpAttributeList);
  output.Reset();
  const OwnedHandle process(started.hProcess);
  const OwnedHandle thread(started.hThread);

  while (WaitForSingleObject(process.Get(), kPollMs) == WAIT_TIMEOUT) {
    AnswerMessageBoxes(started.dwProcessId, result);
    if (while_running) {
      while_running(started.dwProcessId);
    }
  }
  GetExitCodeProcess(process.Get(), &result.exit_code);
  result.console = ReadToEnd(console.Get());
  return result;
}

void AnswerMessageBoxes(DWORD process_id, HelperResult& result) {
  WindowSearch search{process_id, &result};
  EnumWindows(LookAtWindow, reinterpret_cast<LPARAM>(&search));
}

OwnedHandle MakeInheritable(HANDLE handle) {
  SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
  return OwnedHandle(handle);
}

OwnedHandle MakeInheritableEvent(bool signalled) {
  return MakeInheritable(CreateEventW(nullptr, TRUE, signalled, nullptr));
}

OwnedHandle MakeInheritableMutex() {
  return MakeInheritable(CreateMutexW(nullptr, FALSE, nullptr));
}

std::wstring HandleText(HANDLE handle) {
  return std::to_wstring(reinterpret_cast<std::uintptr_t>(handle));
}

std::wstring BuiltProgram(std::wstring_view name) {
  std::array<wchar_t, MAX_PATH> folder{};
  GetCurrentDirectoryW(MAX_PATH, folder.data());
  return JoinPath(folder.data(), name);
}

}  // namespace talvex::test
