#include "examples/client/client_lock.h"

#include <span>
#include <string_view>
#include <utility>

#include "core/sha256.h"
#include "core/text_encoding.h"

namespace talvex::example {
namespace {

constexpr DWORD kClosingWaitMs = 2'000;
constexpr DWORD kPollMs = 50;
constexpr DWORD kHandoverWaitMs = 10'000;
constexpr DWORD kPathCapacity = 32'768;  // characters
// Global: a second user of the machine, in another session, may start the same client.
constexpr std::wstring_view kNamePrefix = L"Global\\TalvexClient-";
constexpr std::wstring_view kHelperNamePrefix = L"Global\\TalvexHelper-";

constexpr std::wstring_view kUnnamed = L"Could not name the ownership lock";
constexpr std::wstring_view kNotOpened = L"Could not open the ownership lock";
constexpr std::wstring_view kTaken = L"Talvex already runs from this directory, or is being updated.";
constexpr std::wstring_view kNotHandedOver = L"The helper did not hand over its ownership lock.";

// What cannot be opened for another reason than that it is not there belongs to another user's helper.
bool HelperRuns(const std::wstring& event_name) noexcept {
  const OwnedHandle event(OpenEventW(SYNCHRONIZE, FALSE, event_name.c_str()));
  return event.IsValid() || GetLastError() != ERROR_FILE_NOT_FOUND;
}

}  // namespace

std::wstring NameOfDirectory(const std::wstring& directory, UpdateError& error) {
  std::wstring path(kPathCapacity, L'\0');
  const OwnedHandle handle(CreateFileW(directory.c_str(), 0,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                       OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  const DWORD length =
      handle.IsValid() ? GetFinalPathNameByHandleW(handle.Get(), path.data(), kPathCapacity, 0) : 0;
  if (length == 0 || length >= kPathCapacity) {
    SetWindowsError(error, kUnnamed, GetLastError());
    return {};
  }
  path.resize(length);
  Sha256Digest digest;
  return Sha256OfBuffer(std::as_bytes(std::span(path)), digest, error) ? DigestToHex(digest) : std::wstring();
}

bool ClientLock::Take(const std::wstring& client_root, UpdateError& error) {
  const std::wstring name = NameOfDirectory(client_root, error);
  if (name.empty()) {
    return false;
  }
  const std::wstring mutex_name = std::wstring(kNamePrefix) + name;
  const std::wstring event_name = std::wstring(kHelperNamePrefix) + name;
  mutex_.Reset(CreateMutexW(nullptr, FALSE, mutex_name.c_str()));
  if (!mutex_.IsValid()) {
    SetWindowsError(error, kNotOpened, GetLastError());
    return false;
  }
  const ULONGLONG deadline = GetTickCount64() + kClosingWaitMs;
  do {
    // Order: the helper is looked for with the lock held, because then nobody else can start one.
    if (Acquire(kClosingWaitMs) && !HelperRuns(event_name)) {
      return true;
    }
    Release();
    Sleep(kPollMs);
  } while (GetTickCount64() < deadline);
  return Refuse(error, kTaken);
}

bool ClientLock::TakeOver(OwnedHandle mutex, UpdateError& error) {
  mutex_ = std::move(mutex);
  // Each later child process gets the lock by name of its handle alone, never by accident.
  SetHandleInformation(mutex_.Get(), HANDLE_FLAG_INHERIT, 0);
  return Acquire(kHandoverWaitMs) ? true : Refuse(error, kNotHandedOver);
}

void ClientLock::Release() noexcept {
  if (std::exchange(owned_, false)) {
    ReleaseMutex(mutex_.Get());
  }
}

// A lock whose owner died counts as taken: what that process left behind is looked at next.
bool ClientLock::Acquire(DWORD wait_ms) noexcept {
  const DWORD result = WaitForSingleObject(mutex_.Get(), wait_ms);
  owned_ = result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
  return owned_;
}

bool AnnounceHelper(const std::wstring& client_root, OwnedHandle& event, UpdateError& error) {
  const std::wstring name = NameOfDirectory(client_root, error);
  if (name.empty()) {
    return false;
  }
  const std::wstring event_name = std::wstring(kHelperNamePrefix) + name;
  SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
  event.Reset(CreateEventW(&inheritable, TRUE, FALSE, event_name.c_str()));
  if (!event.IsValid()) {
    SetWindowsError(error, kNotOpened, GetLastError());
    return false;
  }
  return true;
}

}  // namespace talvex::example
