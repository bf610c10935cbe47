#pragma once

// The ownership lock of a client directory: a mutex that exactly one process holds, be it the running client
// or the helper that changes the client's files. It is handed from one to the other as an inherited handle.
//
// Between the two nobody holds it, while the helper proves the staged files. A client that is started then
// must not take it, or the update would fail. So an event, never set, says that a helper is at work: the
// helper inherits it without knowing, and so it exists exactly as long as the helper does.

#include <windows.h>

#include <string>

#include "core/owned_handle.h"
#include "core/update_error.h"

namespace talvex::example {

// A mutex belongs to a thread: take and release it on the same one.
class ClientLock {
 public:
  ClientLock() = default;
  ClientLock(const ClientLock&) = delete;
  ClientLock& operator=(const ClientLock&) = delete;
  ~ClientLock() { Release(); }

  // Takes the lock of the client in `client_root`, unless a helper is at work there. A client or helper that
  // is just closing gets two seconds to do so.
  // Messages:
  //   "Could not name the ownership lock: " + Windows text
  //   "Could not open the ownership lock: " + Windows text
  //   "Talvex already runs from this directory, or is being updated."
  [[nodiscard]] bool Take(const std::wstring& client_root, UpdateError& error);

  // Takes over the lock that the helper left. The helper releases it right after it has started this process,
  // so this waits for up to ten seconds. Messages:
  //   "The helper did not hand over its ownership lock."
  [[nodiscard]] bool TakeOver(OwnedHandle mutex, UpdateError& error);

  [[nodiscard]] HANDLE Get() const noexcept { return mutex_.Get(); }

  // Lets go of the lock. A helper that inherited it takes it next.
  void Release() noexcept;

 private:
  [[nodiscard]] bool Acquire(DWORD wait_ms) noexcept;

  OwnedHandle mutex_;
  bool owned_ = false;
};

// Makes the event that says that a helper of the client in `client_root` is at work, as a handle for that
// helper to inherit; call it with the lock held. Messages: the first two of ClientLock::Take.
[[nodiscard]] bool AnnounceHelper(const std::wstring& client_root, OwnedHandle& event, UpdateError& error);

// A name for the directory that is the same however it is spelled: the digest of its true path. Empty on
// failure, with the first message of ClientLock::Take.
[[nodiscard]] std::wstring NameOfDirectory(const std::wstring& directory, UpdateError& error);

}  // namespace talvex::example
