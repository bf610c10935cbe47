#pragma once

// What a client that is started again after an update is given: by the helper in two environment variables,
// and by the client that started the helper in a third one, which the helper passes on unread.

#include <string>

#include "client/callbacks.h"
#include "core/owned_handle.h"
#include "core/sha256_digest.h"

namespace talvex::client {

struct Handoff {
  bool present = false;
  Sha256Digest manifest_digest;  // of the release that was just installed
  OwnedHandle lock;              // the helper's mutex, inherited; the helper releases it when it has finished
  std::wstring arguments;        // of the client that was updated
};

// Removes the variables, so that no child process takes them for its own, and reads them if there is
// something to hand off: `has_journal`. An incomplete or unreadable handoff counts as none: the client then
// behaves as if it had been started by hand. Anybody who starts a client can set its environment, so a
// handoff must never keep the client from starting.
[[nodiscard]] Handoff TakeHandoff(bool has_journal);

// Waits until the helper has finished, and lets the game cancel meanwhile. False when it has not after ten
// seconds.
[[nodiscard]] bool WaitForHelper(const Handoff& handoff, const Callbacks& callbacks);

// Keeps `arguments` in this process's environment, which the helper and then the restarted client inherit,
// until it is destroyed.
class ArgumentsForRestart {
 public:
  explicit ArgumentsForRestart(const std::wstring& arguments);
  ArgumentsForRestart(const ArgumentsForRestart&) = delete;
  ArgumentsForRestart& operator=(const ArgumentsForRestart&) = delete;
  ~ArgumentsForRestart();

  [[nodiscard]] bool IsSet() const noexcept { return is_set_; }

 private:
  bool is_set_ = false;
};

}  // namespace talvex::client
