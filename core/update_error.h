#pragma once

// How a failing operation reports the reason to its caller.
//
// Every fallible operation of the program returns bool (or an empty result where its header says so) and
// takes an UpdateError last among its outputs. The message is a complete sentence for the player. The
// first, most exact message wins: an outer step adds its own only while the error is still empty.

#include <windows.h>

#include <string>
#include <string_view>

namespace talvex {

// A sentence for the player; empty means that no error was recorded. There is no numeric field: a Windows
// code becomes part of the text at once, while it is known which call it belongs to.
class UpdateError {
 public:
  [[nodiscard]] bool IsEmpty() const noexcept { return message_.empty(); }
  [[nodiscard]] const std::wstring& Message() const noexcept { return message_; }

 private:
  friend void SetError(UpdateError& error, std::wstring_view message);

  std::wstring message_;
};

// Replaces the message.
void SetError(UpdateError& error, std::wstring_view message);

// Replaces the message with `prefix`, ": " and the system's text for `code`, without trailing CR and LF, or
// for a code that the system does not know
//   "Windows error " + the code in decimal
// `prefix` is a short phrase without a full stop. Pass the code that GetLastError returned in the statement
// after the failing call; a later call may have replaced it.
void SetWindowsError(UpdateError& error, const wchar_t* prefix, DWORD code);

// SetError in one expression with the failure: `return Refuse(error, kWhy);`.
[[nodiscard]] bool Refuse(UpdateError& error, const wchar_t* message);
[[nodiscard]] bool Refuse(UpdateError& error, const std::wstring& message);

// SetWindowsError in one expression with the failure.
[[nodiscard]] bool RefuseWithWindowsError(UpdateError& error, const wchar_t* prefix, DWORD code);

// Refuse for an outer step: keeps a message that a step below has already set.
[[nodiscard]] bool RefuseUnlessExplained(UpdateError& error, const wchar_t* message);

}  // namespace talvex
