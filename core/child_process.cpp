#include "core/child_process.h"

#include <utility>

#include "core/inherited_handle_list.h"

namespace talvex {

bool StartChildProcess(const std::wstring& program, std::wstring command_line, const std::wstring& directory,
                       std::vector<HANDLE> handles, ChildProcess& child, DWORD creation_flags) {
  const InheritedHandleList inherited(std::move(handles));
  if (!inherited.IsComplete()) {
    return false;
  }
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof(startup);
  startup.lpAttributeList = inherited.Get();
  PROCESS_INFORMATION started{};
  // The command line is a copy, because CreateProcessW may write to it.
  if (!CreateProcessW(program.c_str(), command_line.data(), nullptr, nullptr, TRUE,
                      EXTENDED_STARTUPINFO_PRESENT | CREATE_UNICODE_ENVIRONMENT | creation_flags, nullptr,
                      directory.c_str(), &startup.StartupInfo, &started)) {
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
