#pragma once

// Starts the helper in its two transaction modes. The client exits right afterwards; the helper waits for
// that before it changes anything.

#include <windows.h>

#include <string>

#include "core/update_error.h"
#include "examples/client/release_offer.h"
#include "examples/client/staging.h"

namespace talvex::example {

// Starts the new release's helper to install `staged`. `lock` is the ownership lock, which the helper
// inherits together with a handle to this process. Messages: those of the file operations, and
//   "There is no temporary folder for the update helper: " + Windows text
//   "The update helper is not the one of its release."
//   "The update helper could not be copied: " + Windows text
//   "The update helper could not be started: " + Windows text
[[nodiscard]] bool StartUpdate(const std::wstring& client_root, const ReleaseOffer& offer,
                               const StagedRelease& staged, HANDLE lock, UpdateError& error);

// Starts the helper that the last update kept, to undo that update. Messages: those of StartUpdate,
// ParseRollbackJournal and VerifyRecoveryManifest.
[[nodiscard]] bool StartRollback(const std::wstring& client_root, HANDLE lock, UpdateError& error);

// Removes the copies of the helper that earlier runs have left, except one that still runs. (A helper that
// installed a release asks Windows to delete it at the next restart, which works for administrators only.)
// Call it while holding the ownership lock.
void RemoveOldHelpers(const std::wstring& client_root);

}  // namespace talvex::example
