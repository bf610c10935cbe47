#pragma once

// The one retry schedule. Virus scanners, indexers and Explorer hold files for moments: whoever they may
// disturb tries again for two seconds. A proof is never retried, since who decides must not wait for another
// answer, and neither is the clearing of work data, which the next run does anyway.

#include <windows.h>

#include <algorithm>
#include <string>

namespace talvex {

// The codes with which Windows says that somebody else is using the file at this moment.
[[nodiscard]] constexpr bool IsTransientError(DWORD code) noexcept {
  return code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION || code == ERROR_LOCK_VIOLATION ||
         code == ERROR_BUSY || code == ERROR_USER_MAPPED_FILE;
}

// Whether `code` is Windows' word that there is nothing of that name.
[[nodiscard]] constexpr bool IsNotFound(DWORD code) noexcept {
  return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND;
}

// The time that a piece of work of many operations may sleep in all, in milliseconds.
class RetryBudget {
 public:
  explicit RetryBudget(DWORD limit_ms) noexcept : left_ms_(limit_ms) {}

  // Takes `delay_ms` from what is left, if there is as much.
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
  // Sleeps only as long as `budget` allows; it outlives the schedule.
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

// What `look` yields (a PathKind, a FileState), tried again while it is kUnknown.
template <typename Look>
[[nodiscard]] auto LookWithRetry(RetrySchedule& schedule, Look look) {
  auto result = decltype(look())::kUnknown;
  static_cast<void>(schedule.Try([&] {
    result = look();
    return result != decltype(look())::kUnknown;
  }));
  return result;
}

// MoveFileExW with exactly these flags, under the schedule.
[[nodiscard]] inline bool MoveFileWithRetry(const std::wstring& source, const std::wstring& destination,
                                            DWORD flags, RetrySchedule& schedule) {
  return schedule.Try([&] { return MoveFileExW(source.c_str(), destination.c_str(), flags) != 0; });
}

// DeleteFileW under the schedule. A name that is gone at a later attempt has been deleted: by this call or by
// somebody else, whose handle delayed the end of it.
[[nodiscard]] inline bool DeleteFileWithRetry(const std::wstring& path, RetrySchedule& schedule) {
  bool is_first = true;
  return schedule.Try([&] {
    const bool deleted = DeleteFileW(path.c_str()) || (!is_first && IsNotFound(GetLastError()));
    is_first = false;
    return deleted;
  });
}

}  // namespace talvex
