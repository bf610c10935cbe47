#include "core/child_process.h"

#include <utility>

#include "core/inherited_handle_list.h"

namespace talvex {

bool StartChildProcess(const std::wstring& program, std::wstring command_line, const std::wstring& directory,
                       std::vector<HANDLE> handles, ChildProcess& child, DWORD creation_flags) {
  PROCESS_INFORMATION started{};
  bool is_started = false;
  DWORD code = ERROR_SUCCESS;
  {
    const InheritedHandleList inherited(std::move(handles));
    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof(startup);
    startup.lpAttributeList = inherited.Get();
    // The command line is a copy, because CreateProcessW may write to it.
    is_started = inherited.IsComplete() &&
                 CreateProcessW(program.c_str(), command_line.data(), nullptr, nullptr, TRUE,
                                EXTENDED_STARTUPINFO_PRESENT | CREATE_UNICODE_ENVIRONMENT | creation_flags,
                                nullptr, directory.c_str(), &startup.StartupInfo, &started);
    code = GetLastError();
  }
  if (!is_started) {
    SetLastError(code);  // the list's destructor calls Windows too
    return false;
  }
  child.process.Reset(started.hProcess);
  child.thread.Reset(started.hThread);
  return true;
}

OwnedHandle DuplicateInheritable(HANDLE handle, DWORD access, DWORD options) noexcept {
  const HANDLE process = GetCurrentProcess();
  HANDLE duplicate = nullptr;
  return OwnedHandle(DuplicateHandle(process, handle, process, &duplicate, access, TRUE, options) ? duplicate
                                                                                                  : nullptr);
}

}  // namespace talvex
