#pragma once

// What a transaction shows its user. The transaction only passes values: nothing that the display does or
// fails to do affects the update.

#include <cstdint>
#include <string_view>

namespace talvex {

class TransactionDisplay {
 public:
  // Shows the status window with `initial_text`, unless it cannot be created.
  virtual void StartStatusWindow(std::wstring_view initial_text) noexcept = 0;

  // Replaces the window's text.
  virtual void SetStatusText(std::wstring_view text) noexcept = 0;

  // Sets the window's bar to `done` of `total`, in whatever unit the two share.
  virtual void SetStatusProgress(std::uint64_t done, std::uint64_t total) noexcept = 0;

  // Closes the window. Does nothing when none is shown.
  virtual void StopStatusWindow() noexcept = 0;

  // Reports a failed transaction and returns when the user has read it. The text is zero-terminated: running
  // out of memory is reported too, and a copy would need some.
  virtual void ShowUpdateFailure(const wchar_t* message) = 0;

 protected:
  TransactionDisplay() = default;
  TransactionDisplay(const TransactionDisplay&) = default;
  TransactionDisplay& operator=(const TransactionDisplay&) = default;
  ~TransactionDisplay() = default;
};

}  // namespace talvex
