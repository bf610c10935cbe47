#pragma once

// Who may change a client directory: the running client, or the helper that it has started. Whoever holds the
// lock has the lock file open, which nobody else can then open; the last handle deletes it. The helper
// inherits a handle unknowingly, so there is no moment between client and helper in which the directory is
// free, and a process that dies leaves nothing behind.
//
// A file and not a named object: its name cannot be taken by somebody who may not write to the directory, it
// is the same for every logon and elevation, and it needs no true path of the directory, which some volumes
// do not have. It exists only while it is held, so that nobody who may only read can take it. (On Windows,
// who has it open for its attributes alone can keep the name for as long as that: "already runs".)

#include <windows.h>

#include <string>

#include "client/callbacks.h"
#include "client/failure.h"
#include "core/owned_handle.h"

namespace talvex::client {

class ClientLock {
 public:
  // Takes the lock of the client in `client_root`. A client or helper that is just exiting gets up to
  // `wait_ms` milliseconds to do so, in which the game can cancel. Failures:
  //   TALVEX_E_ALREADY_RUNNING  "Talvex already runs from this directory, or is being updated."
  //   TALVEX_E_NOT_WRITABLE     "Talvex cannot be updated: this user may not write to its directory."
  //   TALVEX_E_SYSTEM           "Could not take the client directory: " + Windows text
  [[nodiscard]] talvex_result Take(const std::wstring& client_root, DWORD wait_ms, const Callbacks& callbacks,
                                   Failure& failure);

  [[nodiscard]] bool IsTaken() const noexcept { return file_.IsValid(); }

  // A duplicate for a helper to inherit; invalid on failure, and then the last error is the reason.
  [[nodiscard]] OwnedHandle MakeInheritable() const;

 private:
  OwnedHandle file_;
};

}  // namespace talvex::client
