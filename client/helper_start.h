#pragma once

// Starts the helper in its two transaction modes. The client exits right afterwards; the helper waits for
// that before it changes anything.

#include <string>

#include "client/client_lock.h"
#include "client/failure.h"
#include "client/trusted_keys.h"
#include "core/sha256_digest.h"
#include "formats/manifest.h"

namespace talvex::client {

// What the helper is told to install. Its own program is `helper_path`, of the new release.
struct StagedRelease {
  std::wstring stage_root;
  std::wstring helper_path;
  Sha256Digest plan_digest;
};

// Starts the helper to install `staged`, the stage of `release`. Failures: those of PlaceHelper, and
//   TALVEX_E_SYSTEM  "The update helper could not be started: " + Windows text
[[nodiscard]] talvex_result StartUpdate(const std::wstring& client_root, const Manifest& release,
                                        const StagedRelease& staged, const ClientLock& lock,
                                        Failure& failure);

// Starts the helper that the last update has kept, to undo that update. Failures: those of PlaceHelper,
// ParseRollbackJournal and VerifyRecoveryManifest, all TALVEX_E_SYSTEM, and that of StartUpdate.
[[nodiscard]] talvex_result StartRollback(const std::wstring& client_root, const TrustedKeys& keys,
                                          const ClientLock& lock, Failure& failure);

}  // namespace talvex::client
