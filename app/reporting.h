#pragma once

// The helper's output: one line on the console of the process that started it, or a message box.

#include <string_view>

namespace talvex {

// Whether the transaction modes print their failures as console lines and suppress their notices. Initially
// false, and nothing in the program sets it.
extern bool console_reporting;

// The caption of every message box about an update, and of the status window.
inline constexpr wchar_t kUpdateCaption[] = L"Talvex Update";

// What the console line of a failure begins with.
inline constexpr wchar_t kErrorPrefix[] = L"ERROR: ";

// Writes `text` and a line end, as UTF-8, to the starting process's console or to wherever standard output is
// redirected. Without either, does nothing. A text with a lone surrogate has no UTF-8 form: nothing is
// written, not even a line end.
void WriteConsoleLine(std::wstring_view text);

// Reports a failed transaction and returns when the user has closed the box. An empty message stands for
// "The update failed. Your existing files were restored." Allocates no memory for the box, because running
// out of memory is reported too.
void ShowUpdateFailure(const wchar_t* message);

// Shows a notice that needs no decision and returns when the user has closed it. Shows nothing while
// console_reporting is set.
void ShowNotice(const wchar_t* caption, const wchar_t* message);

}  // namespace talvex
