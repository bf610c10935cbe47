#pragma once

// The small window that shows how far an update has come.

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "core/owned_handle.h"

namespace talvex {

// The progress of finished work; a bar counts in thousandths.
inline constexpr int kFullProgress = 1000;

// All that the window's thread and the transaction's thread share. The lock is held only while the fields
// below it are copied and never across a call on a window, so that neither thread can keep the other waiting.
struct StatusBlock {
  SRWLOCK lock = SRWLOCK_INIT;
  std::wstring text;
  int progress = 0;       // 0 to kFullProgress
  bool dirty = false;     // text or progress changed since the window last showed them
  HWND window = nullptr;  // null before the window's creation and after its destruction
};

// Holds the lock of a StatusBlock.
class StatusLock {
 public:
  explicit StatusLock(StatusBlock& block) noexcept : lock_(block.lock) { AcquireSRWLockExclusive(&lock_); }
  StatusLock(const StatusLock&) = delete;
  StatusLock& operator=(const StatusLock&) = delete;
  ~StatusLock() { ReleaseSRWLockExclusive(&lock_); }

 private:
  SRWLOCK& lock_;
};

// A window with a line of text and a progress bar, which lives on a thread of its own. The user can hide it
// in the notification area but cannot close it. Whether it is hidden is kept in this process's environment
// variable TALVEX_UPDATE_MINIMIZED, which the restarted client inherits.
//
// The window is a courtesy: nothing here throws, and no failure of the window reaches the update. All
// operations belong to the transaction's thread. They only hand values over; starting and stopping alone wait
// for the window's thread.
class StatusWindow {
 public:
  StatusWindow() = default;
  StatusWindow(const StatusWindow&) = delete;
  StatusWindow& operator=(const StatusWindow&) = delete;
  ~StatusWindow() { StopStatusWindow(); }

  // Shows the window, or its icon alone when TALVEX_UPDATE_MINIMIZED is exactly "1", and returns once it is
  // there. False: it could not be made, nothing of it is left, and the other operations do no harm. With the
  // window already running, only the text is changed.
  bool StartStatusWindow(std::wstring_view initial_text) noexcept;

  // Replaces the text; null counts as empty. The window shows it within a tenth of a second.
  void SetStatusText(const wchar_t* text) noexcept;

  // Sets the bar to `done` of `total`: empty when `total` is 0, full when `done` reaches or passes it.
  void SetStatusProgress(std::uint64_t done, std::uint64_t total) noexcept;

  // Closes the window and returns when its thread has ended. Does nothing when no window runs.
  void StopStatusWindow() noexcept;

 private:
  void StoreText(std::wstring_view text) noexcept;

  OwnedHandle thread_;  // null while no window thread runs
  DWORD thread_id_ = 0;
  StatusBlock shared_;
};

}  // namespace talvex
