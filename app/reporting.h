#pragma once

// How the helper speaks: one line on the console of the process that started it, a message box, an exit code.

#include <string_view>

namespace talvex {

// How every mode ends.
inline constexpr int kExitDone = 0;      // the mode did its job
inline constexpr int kExitFailed = 1;    // the mode ran and failed
inline constexpr int kExitUnusable = 2;  // the command line could not be used

// Whether the transaction modes print their failures as console lines and keep their notices to themselves.
// False at start, and nothing in the program sets it.
extern bool console_reporting;

// The caption of every box about an update.
inline constexpr wchar_t kUpdateCaption[] = L"Talvex Update";

// Writes `text` and a line end, as UTF-8, to the starting process's console or to wherever standard output
// was sent. Without either, nothing happens. A text with a lone surrogate has no UTF-8 form and leaves the
// line empty, its end included.
void WriteConsoleLine(std::wstring_view text);

// Reports a failed transaction and returns when the user has closed the box. An empty message stands for
// "The update failed. Your existing files were restored." Needs no memory for the box, because memory that
// ran out is reported as well.
void ShowUpdateFailure(const wchar_t* message);

// Shows a notice that asks for no decision and returns when the user has closed it. Shows nothing while
// console_reporting is set.
void ShowNotice(const wchar_t* caption, const wchar_t* message);

}  // namespace talvex
