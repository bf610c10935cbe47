#pragma once

// What the helper passes to the client that it starts after an update, in two environment variables.

#include "core/owned_handle.h"
#include "core/sha256_digest.h"

namespace talvex::example {

struct Handoff {
  bool present = false;
  Sha256Digest manifest_digest;  // of the release that was just installed
  OwnedHandle lock;              // the ownership lock, inherited
};

// Reads both variables and removes them, so that no child process takes them for its own. An incomplete or
// unreadable handoff counts as none: the client then behaves as if it had been started by hand.
[[nodiscard]] Handoff TakeHandoff();

}  // namespace talvex::example
