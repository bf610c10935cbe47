#include "tests/support/helper_run.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>

#include "core/inherited_handle_list.h"
#include "tests/support/scratch_directory.h"

namespace talvex::test {
namespace {

constexpr DWORD kPollMs = 10;
constexpr int kTextOfMessageBox = 0xFFFF;  // the control's id

std::wstring TextOf(HWND window) {
  std::array<wchar_t, 2048> text{};
  SendMessageTimeoutW(window, WM_GETTEXT, text.size(), reinterpret_cast<LPARAM>(text.data()),
                      SMTO_ABORTIFHUNG, 1000, nullptr);
  return text.data();
}

struct WindowSearch {
  DWORD process_id;
  std::wstring window_class;
  HWND found = nullptr;
};

BOOL CALLBACK StopAtWindow(HWND window, LPARAM parameter) {
  auto& search = *reinterpret_cast<WindowSearch*>(parameter);
  DWORD owner = 0;
  std::array<wchar_t, 64> window_class{};
  GetWindowThreadProcessId(window, &owner);
  GetClassNameW(window, window_class.data(), static_cast<int>(window_class.size()));
  if (owner == search.process_id && search.window_class == window_class.data() && IsWindowVisible(window)) {
    search.found = window;
    return FALSE;
  }
  return TRUE;
}

// Goes through a list made at once. From one window to the next with FindWindowExW, the server of Wine 10
// never comes to an end when the window is destroyed meanwhile.
HWND VisibleWindow(DWORD process_id, const wchar_t* window_class) {
  WindowSearch search{process_id, window_class};
  EnumWindows(&StopAtWindow, reinterpret_cast<LPARAM>(&search));
  return search.found;
}

// Notes what the process shows now, and closes its message box.
void LookAtWindows(DWORD process_id, HelperResult& result) {
  result.showed_window |= VisibleWindow(process_id, L"TalvexUpdateStatusWindowV1") != nullptr;
  const HWND box = VisibleWindow(process_id, L"#32770");
  const std::wstring text = TextOf(GetDlgItem(box, kTextOfMessageBox));
  const std::wstring caption = TextOf(box);
  if (!text.empty() && !caption.empty()) {  // on a busy machine the texts come only the next time
    result.message = text;
    result.caption = caption;
    PostMessageW(box, WM_COMMAND, IDOK, 0);
  }
}

std::vector<DWORD> ProcessesIn(const OwnedHandle& job) {
  std::array<ULONG_PTR, 32> storage{};
  auto* const found = reinterpret_cast<JOBOBJECT_BASIC_PROCESS_ID_LIST*>(storage.data());
  EXPECT_TRUE(
      QueryInformationJobObject(job.Get(), JobObjectBasicProcessIdList, found, sizeof(storage), nullptr));
  return {found->ProcessIdList, found->ProcessIdList + found->NumberOfProcessIdsInList};
}

}  // namespace

HelperResult RunHelper(const std::wstring& program, const std::vector<std::wstring>& arguments,
                       std::vector<HANDLE> inherited,
                       const std::function<void(DWORD process_id)>& while_running) {
  GetDesktopWindow();  // Wine starts its desktop program at the first use: here, and not inside the job below
  const ScratchDirectory scratch;
  const std::wstring console = scratch / L"console";
  OwnedHandle output = MakeInheritable(
      CreateFileW(console.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, 0, nullptr));
  inherited.push_back(output.Get());
  const InheritedHandleList handles(inherited);
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof(startup);
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdOutput = output.Get();
  startup.StartupInfo.hStdError = output.Get();
  startup.lpAttributeList = handles.Get();
  std::wstring command_line = L"\"" + program + L"\"";
  for (const std::wstring& argument : arguments) {
    command_line += L" \"" + argument + L"\"";
  }
  PROCESS_INFORMATION started{};
  EXPECT_TRUE(CreateProcessW(program.c_str(), command_line.data(), nullptr, nullptr, TRUE,
                             EXTENDED_STARTUPINFO_PRESENT | CREATE_SUSPENDED, nullptr, nullptr,
                             &startup.StartupInfo, &started))
      << GetLastError();
  const OwnedHandle process(started.hProcess);
  const OwnedHandle thread(started.hThread);
  // Order: the job before the first instruction, because programs started earlier would not belong to it.
  const OwnedHandle job(CreateJobObjectW(nullptr, nullptr));
  EXPECT_TRUE(AssignProcessToJobObject(job.Get(), process.Get())) << GetLastError();
  ResumeThread(thread.Get());
  output.Reset();

  HelperResult result;
  for (auto ids = ProcessesIn(job); !ids.empty(); ids = ProcessesIn(job)) {
    for (const DWORD id : ids) {
      LookAtWindows(id, result);
      if (while_running) {
        while_running(id);
      }
    }
    Sleep(kPollMs);
  }
  GetExitCodeProcess(process.Get(), &result.exit_code);
  result.console = ReadTestFile(console);
  return result;
}

std::wstring BuiltProgram(std::wstring_view name) {
  return (std::filesystem::current_path() / name).wstring();
}

}  // namespace talvex::test
