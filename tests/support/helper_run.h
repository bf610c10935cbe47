#pragma once

// Runs the real helper with real inherited handles, and answers its message boxes.

#include <windows.h>

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
// closes every message box that it shows, and waits for its end. `while_running` is called again and again
// meanwhile.
[[nodiscard]] HelperResult RunHelper(const std::wstring& program, const std::vector<std::wstring>& arguments,
                                     std::vector<HANDLE> inherited,
                                     const std::function<void(DWORD process_id)>& while_running = {});

// Notes and closes every message box that the process shows now.
void AnswerMessageBoxes(DWORD process_id, HelperResult& result);

[[nodiscard]] OwnedHandle MakeInheritable(HANDLE handle);  // and owned
[[nodiscard]] OwnedHandle MakeInheritableEvent(bool signalled);
[[nodiscard]] OwnedHandle MakeInheritableMutex();
[[nodiscard]] std::wstring HandleText(HANDLE handle);

// The full path of a program of this build.
[[nodiscard]] std::wstring BuiltProgram(std::wstring_view name);

}  // namespace talvex::test
