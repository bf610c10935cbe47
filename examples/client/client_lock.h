#pragma once

// The ownership lock of a client directory: a mutex that at most one process holds, either the running client
// or the helper that changes the client's files. It is passed from one to the other as an inherited handle.
//
// In between, while the helper verifies the staged files, nobody holds it. A client started then must not
// take it, or the update would fail. So an event, never set, shows that a helper is at work: the helper
// inherits its handle unknowingly, so the event exists as long as the helper does.

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
  // is just exiting gets two seconds to do so. Messages:
  //   "Could not name the ownership lock: " + Windows text
  //   "Could not open the ownership lock: " + Windows text
  //   "Talvex already runs from this directory, or is being updated."
  [[nodiscard]] bool Take(const std::wstring& client_root, UpdateError& error);

  // Takes over the lock from the helper, which releases it right after it has started this process. Waits for
  // up to ten seconds. Messages:
  //   "The helper did not hand over its ownership lock."
  [[nodiscard]] bool TakeOver(OwnedHandle mutex, UpdateError& error);

  [[nodiscard]] HANDLE Get() const noexcept { return mutex_.Get(); }

  // Releases the lock. A helper that inherited it acquires it next.
  void Release() noexcept;

 private:
  [[nodiscard]] bool Acquire(DWORD wait_ms) noexcept;

  OwnedHandle mutex_;
  bool owned_ = false;
};

// Creates the event which shows that a helper of the client in `client_root` is at work, for that helper to
// inherit; call it with the lock held. Messages: the first two of ClientLock::Take.
[[nodiscard]] bool AnnounceHelper(const std::wstring& client_root, OwnedHandle& event, UpdateError& error);

// A name for the directory that does not depend on its spelling: the digest of its true path. Empty on
// failure, with the first message of ClientLock::Take.
[[nodiscard]] std::wstring NameOfDirectory(const std::wstring& directory, UpdateError& error);

}  // namespace talvex::example
