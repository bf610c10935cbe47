#include "core/transaction_handles.h"

#include <string_view>

#include "core/text_encoding.h"

namespace talvex {
namespace {

constexpr DWORD kClientExitWaitMs = 300'000;
constexpr DWORD kLockWaitMs = 10'000;

}  // namespace

bool ParseHandleValue(const wchar_t* text, std::uint64_t& value) {
  value = 0;
  return text != nullptr && ParseDecimalU64(std::wstring_view(text), value);
}

HANDLE HandleFromValue(std::uint64_t value) noexcept {
  return reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(value));
}

HANDLE ParseHandle(const wchar_t* text) {
  std::uint64_t value = 0;
  return ParseHandleValue(text, value) && value <= kMaxHandleValue ? HandleFromValue(value) : nullptr;
}

bool IsOpenHandle(HANDLE handle) noexcept {
  DWORD flags = 0;
  return handle != nullptr && GetHandleInformation(handle, &flags);
}

bool WaitForClientExit(OwnedHandle& client) noexcept {
  const DWORD result = WaitForSingleObject(client.Get(), kClientExitWaitMs);
  client.Reset();
  return result == WAIT_OBJECT_0;
}

bool TransactionHandles::AreOpen() const noexcept {
  return IsOpenHandle(lock_.Get()) && IsOpenHandle(parent_.Get());
}

bool TransactionHandles::AcquireLock() noexcept {
  const DWORD result = WaitForSingleObject(lock_.Get(), kLockWaitMs);
  lock_owned_ = result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
  return lock_owned_;
}

void TransactionHandles::ReleaseTransactionHandles() noexcept {
  parent_.Reset();
  if (lock_owned_) {
    ReleaseMutex(lock_.Get());
    lock_owned_ = false;
  }
  lock_.Reset();
}

}  // namespace talvex
