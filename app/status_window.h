#pragma once

// The small window that shows the progress of an update.

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "core/owned_handle.h"

namespace talvex {

// The progress value of finished work; the bar counts in thousandths.
inline constexpr int kFullProgress = 1000;

// Everything that the window's thread and the transaction's thread share. The lock is held only while the
// fields below it are copied, never during a call on a window, so that neither thread can keep the other
// waiting.
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

// A window with a line of text and a progress bar, on a thread of its own. The user can hide it in the
// notification area but cannot close it. Whether it is hidden is kept in this process's environment variable
// TALVEX_UPDATE_MINIMIZED, which the restarted client inherits.
//
// The window is optional: nothing here throws, and no failure of the window affects the update. All
// operations are called on the transaction's thread. They only pass values; only starting and stopping wait
// for the window's thread.
class StatusWindow {
 public:
  StatusWindow() = default;
  StatusWindow(const StatusWindow&) = delete;
  StatusWindow& operator=(const StatusWindow&) = delete;
  ~StatusWindow() { StopStatusWindow(); }

  // Shows the window, or only its icon when TALVEX_UPDATE_MINIMIZED is exactly "1", and returns once it
  // exists. False: it could not be created, nothing of it is left, and the other operations are harmless. If
  // the window is already running, only the text is changed.
  bool StartStatusWindow(std::wstring_view initial_text) noexcept;

  // Replaces the text; one that is null counts as empty. The window shows it within a tenth of a second.
  void SetStatusText(std::wstring_view text) noexcept;

  // Sets the bar to `done` of `total`: empty when `total` is 0, full when `done` reaches or passes it.
  void SetStatusProgress(std::uint64_t done, std::uint64_t total) noexcept;

  // Closes the window and returns when its thread has ended. Does nothing without a window.
  void StopStatusWindow() noexcept;

 private:
  void StoreText(std::wstring_view text) noexcept;

  OwnedHandle thread_;  // null while no window thread runs
  DWORD thread_id_ = 0;
  StatusBlock shared_;
};

}  // namespace talvex
