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
// Global, because another user of the machine, in another session, may start the same client.
constexpr wchar_t kNamePrefix[] = L"Global\\TalvexClient-";
constexpr wchar_t kHelperNamePrefix[] = L"Global\\TalvexHelper-";

constexpr wchar_t kUnnamed[] = L"Could not name the ownership lock";
constexpr wchar_t kNotOpened[] = L"Could not open the ownership lock";
constexpr wchar_t kTaken[] = L"Talvex already runs from this directory, or is being updated.";
constexpr wchar_t kNotHandedOver[] = L"The helper did not hand over its ownership lock.";

// An event that exists but cannot be opened belongs to another user's helper.
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
    return RefuseWithWindowsError(error, kNotOpened, GetLastError());
  }
  const ULONGLONG deadline = GetTickCount64() + kClosingWaitMs;
  do {
    // Order: the lock before the check for a helper, because with the lock held nobody else can start one.
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
  // Later child processes get the lock only if its handle is listed for them, never by accident.
  SetHandleInformation(mutex_.Get(), HANDLE_FLAG_INHERIT, 0);
  return Acquire(kHandoverWaitMs) || Refuse(error, kNotHandedOver);
}

void ClientLock::Release() noexcept {
  if (std::exchange(owned_, false)) {
    ReleaseMutex(mutex_.Get());
  }
}

// An abandoned lock counts as acquired: what its owner left behind is checked next.
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
    return RefuseWithWindowsError(error, kNotOpened, GetLastError());
  }
  return true;
}

}  // namespace talvex::example
