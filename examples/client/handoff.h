#pragma once

// What the helper tells the client that it starts after an update, through two variables of the environment.

#include "core/owned_handle.h"
#include "core/sha256_digest.h"

namespace talvex::example {

struct Handoff {
  bool present = false;
  Sha256Digest manifest_digest;  // of the release that was just installed
  OwnedHandle lock;              // the ownership lock, inherited
};

// Reads both variables and removes them, so that no process that this one starts takes them for its own. Half
// a handoff, or one that cannot be read, is none: the client then starts as if it had been started by hand.
[[nodiscard]] Handoff TakeHandoff();

}  // namespace talvex::example
