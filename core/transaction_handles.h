#pragma once

// The handles that the client passes on the command line, as decimal numbers, and the guard that owns them
// during a transaction.

#include <windows.h>

#include <cstdint>

#include "core/owned_handle.h"

namespace talvex {

// The highest handle value in a 32-bit process.
inline constexpr std::uint64_t kMaxHandleValue = 0xFFFFFFFF;

// Reads a decimal handle operand: digits only, at most 2^64 - 1. A null or empty text fails. The caller
// decides what 0 and values above kMaxHandleValue mean. A failure leaves `value` 0.
[[nodiscard]] bool ParseHandleValue(const wchar_t* text, std::uint64_t& value);

// The handle of a parsed value that is at most kMaxHandleValue, those above 0x7FFFFFFF included.
[[nodiscard]] HANDLE HandleFromValue(std::uint64_t value) noexcept;

// Both in one, where 0 and values above kMaxHandleValue are refused like what is no number: null.
[[nodiscard]] HANDLE ParseHandle(const wchar_t* text);

// Whether Windows knows `handle` as one of this process.
[[nodiscard]] bool IsOpenHandle(HANDLE handle) noexcept;

// Waits up to five minutes for the client's process to exit, then closes and clears the handle in any case.
// True when the client has exited.
[[nodiscard]] bool WaitForClientExit(OwnedHandle& client) noexcept;

// Owns the client's process handle and the ownership mutex of one transaction. On every path an acquired
// mutex is released before its handle is closed: closed first, the mutex would stay owned until the helper
// exits, and its next owner would find it abandoned.
class TransactionHandles {
 public:
  // Two equal handles are one, which must be closed once: the lock is then none, so AreOpen is false.
  TransactionHandles(HANDLE parent, HANDLE lock) noexcept
      : parent_(parent), lock_(lock == parent ? nullptr : lock) {}
  TransactionHandles(const TransactionHandles&) = delete;
  TransactionHandles& operator=(const TransactionHandles&) = delete;
  ~TransactionHandles() { ReleaseTransactionHandles(); }

  // Whether both values are handles of this process, and not the same; the lock is checked first.
  [[nodiscard]] bool AreOpen() const noexcept;

  // WaitForClientExit on the parent handle.
  [[nodiscard]] bool WaitForParentExit() noexcept { return WaitForClientExit(parent_); }

  // Waits up to ten seconds for the mutex. An abandoned mutex counts as acquired: a client that crashed while
  // it held the lock must not block its own repair.
  [[nodiscard]] bool AcquireLock() noexcept;

  [[nodiscard]] HANDLE Lock() const noexcept { return lock_.Get(); }

  // Closes the parent handle if it is still open, releases the mutex if it is owned, and closes it.
  void ReleaseTransactionHandles() noexcept;

 private:
  OwnedHandle parent_;
  OwnedHandle lock_;
  bool lock_owned_ = false;
};

}  // namespace talvex
