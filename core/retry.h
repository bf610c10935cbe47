#pragma once

// The one retry schedule. Virus scanners, indexers and Explorer hold files for moments, so an operation that
// they may block is retried for up to two seconds. A verification is never retried, because a decision must
// not wait for a different answer; nor is the clearing of work data, which the next run does anyway.

#include <windows.h>

#include <algorithm>
#include <string>

namespace talvex {

// Error codes of a transient sharing conflict.
[[nodiscard]] constexpr bool IsTransientError(DWORD code) noexcept {
  return code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION || code == ERROR_LOCK_VIOLATION ||
         code == ERROR_BUSY || code == ERROR_USER_MAPPED_FILE;
}

// Whether `code` means that nothing of that name exists.
[[nodiscard]] constexpr bool IsNotFound(DWORD code) noexcept {
  return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND;
}

// The total time that a series of operations may sleep, in milliseconds.
class RetryBudget {
 public:
  explicit RetryBudget(DWORD limit_ms) noexcept : left_ms_(limit_ms) {}

  // Takes `delay_ms` from what is left, if that is enough.
  [[nodiscard]] bool Spend(DWORD delay_ms) noexcept {
    if (delay_ms > left_ms_) {
      return false;
    }
    left_ms_ -= delay_ms;
    return true;
  }

 private:
  DWORD left_ms_;
};

// The sleeps of one operation: 50, 100, 200, then 400 ms, seven in all. Calls that belong together share one
// schedule, and with it the 1,950 ms.
class RetrySchedule {
 public:
  RetrySchedule() = default;
  // Sleeps only as long as `budget` allows, which must outlive the schedule.
  explicit RetrySchedule(RetryBudget& budget) noexcept : budget_(&budget) {}

  // Calls `attempt` until it returns true, until it fails with a code that is not transient, or until no
  // sleep is left. False leaves the last attempt's code as the last error.
  template <typename Attempt>
  [[nodiscard]] bool Try(Attempt attempt) {
    for (;;) {
      if (attempt()) {
        return true;
      }
      const DWORD code = GetLastError();
      if (!IsTransientError(code) || !SleepOnce()) {
        SetLastError(code);
        return false;
      }
    }
  }

 private:
  static constexpr int kMaxSleeps = 7;
  static constexpr DWORD kFirstDelayMs = 50;
  static constexpr DWORD kMaxDelayMs = 400;

  [[nodiscard]] bool SleepOnce() {
    if (sleeps_ == kMaxSleeps || (budget_ != nullptr && !budget_->Spend(delay_ms_))) {
      return false;
    }
    ++sleeps_;
    Sleep(delay_ms_);
    delay_ms_ = std::min(2 * delay_ms_, kMaxDelayMs);
    return true;
  }

  int sleeps_ = 0;
  DWORD delay_ms_ = kFirstDelayMs;
  RetryBudget* budget_ = nullptr;
};

// Returns the result of `probe` (a PathKind, a FileState), retried while it is kUnknown.
template <typename Probe>
[[nodiscard]] auto ProbeWithRetry(RetrySchedule& schedule, Probe probe) {
  auto result = decltype(probe())::kUnknown;
  static_cast<void>(schedule.Try([&] {
    result = probe();
    return result != decltype(probe())::kUnknown;
  }));
  return result;
}

// MoveFileExW with exactly these flags, under the schedule.
[[nodiscard]] inline bool MoveFileWithRetry(const std::wstring& source, const std::wstring& destination,
                                            DWORD flags, RetrySchedule& schedule) {
  return schedule.Try([&] { return MoveFileExW(source.c_str(), destination.c_str(), flags) != 0; });
}

// DeleteFileW under the schedule. A name that is gone at a later attempt has been deleted, by this call or by
// another process: an open handle delayed its removal.
[[nodiscard]] inline bool DeleteFileWithRetry(const std::wstring& path, RetrySchedule& schedule) {
  bool is_first = true;
  return schedule.Try([&] {
    const bool deleted = DeleteFileW(path.c_str()) || (!is_first && IsNotFound(GetLastError()));
    is_first = false;
    return deleted;
  });
}

}  // namespace talvex
