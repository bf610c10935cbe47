#pragma once

// Runs the real programs with real inherited handles, and answers their message boxes.

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/owned_handle.h"

namespace talvex::test {

struct HelperResult {
  DWORD exit_code = 0;
  std::string console;   // what it printed, errors included
  std::wstring message;  // the text of its message box; empty when it showed none
  std::wstring caption;
  bool showed_window = false;  // its status window was seen
};

// Starts `program` with `arguments` (each is quoted) and `inherited` as its only handles besides its output,
// closes every message box, and waits until it and the programs that it has started have all ended.
// `while_running` is called again and again meanwhile, with each of their process ids.
[[nodiscard]] HelperResult RunHelper(const std::wstring& program, const std::vector<std::wstring>& arguments,
                                     std::vector<HANDLE> inherited,
                                     const std::function<void(DWORD process_id)>& while_running = {});

[[nodiscard]] inline OwnedHandle MakeInheritable(HANDLE handle) {  // and owned
  SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
  return OwnedHandle(handle);
}
[[nodiscard]] inline OwnedHandle MakeInheritableEvent(bool signalled) {
  return MakeInheritable(CreateEventW(nullptr, TRUE, signalled, nullptr));
}
[[nodiscard]] inline OwnedHandle MakeInheritableMutex() {
  return MakeInheritable(CreateMutexW(nullptr, FALSE, nullptr));
}
[[nodiscard]] inline std::wstring HandleText(HANDLE handle) {
  return std::to_wstring(reinterpret_cast<std::uintptr_t>(handle));
}

// The full path of a program of this build.
[[nodiscard]] std::wstring BuiltProgram(std::wstring_view name);

}  // namespace talvex::test
