#pragma once

// The owner type for a HANDLE.

#include <windows.h>

#include <utility>

namespace talvex {

// Owns one HANDLE and closes it once. CreateFileW fails with INVALID_HANDLE_VALUE and CreateEventW with
// null, so both count as "nothing owned". Declaring the moves is what forbids copies.
class OwnedHandle {
 public:
  explicit OwnedHandle(HANDLE handle = nullptr) noexcept : handle_(handle) {}
  OwnedHandle(OwnedHandle&& other) noexcept : handle_(other.Release()) {}
  OwnedHandle& operator=(OwnedHandle&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  ~OwnedHandle() { Reset(); }

  [[nodiscard]] bool IsValid() const noexcept {
    return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE;
  }
  [[nodiscard]] HANDLE Get() const noexcept { return handle_; }
  [[nodiscard]] HANDLE Release() noexcept { return std::exchange(handle_, nullptr); }

  // Closes the handle owned so far. The thread's last error stays as it was, so that an owner going out of
  // scope never replaces the code that its user is about to read.
  void Reset(HANDLE handle = nullptr) noexcept {
    if (IsValid() && handle_ != handle) {
      const DWORD last_error = GetLastError();
      CloseHandle(handle_);
      SetLastError(last_error);
    }
    handle_ = handle;
  }

 private:
  HANDLE handle_;
};

}  // namespace talvex
