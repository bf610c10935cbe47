#pragma once

// Whether the installed release is intact and can start: the client's check after an update, before it
// removes the copies of the previous release.

#include <string>

#include "core/update_error.h"
#include "formats/manifest.h"

namespace talvex::example {

// Whether the file of `entry` below `directory` is exactly the described one. Messages: those of
// ResolveCheckedPath and Sha256OfFile, and
//   "A file differs from its release."
[[nodiscard]] bool IsFileOfRelease(const std::wstring& directory, const ManifestEntry& entry,
                                   UpdateError& error);

// Loads the installed release and verifies all of its files. `expected` is the digest of the manifest that
// must be installed, or null for whichever is recorded. Failures are retried for a second and a half, because
// another program may hold a file. The message names the first file that failed. Messages:
//   "No installed release can be proved."
//   "Another release than the one just installed is recorded."
//   path + ": " + a message of IsFileOfRelease
[[nodiscard]] bool CheckFiles(const std::wstring& client_root, const Sha256Digest* expected,
                              Manifest& installed, UpdateError& error);

// Tries to start the game. A broken release fails or ends this process; here the file start.cfg determines
// which ("start=ok", "start=crash", "start=die"). Messages: those of ReadWholeFile, and
//   "The start script asks for a crash."
[[nodiscard]] bool TryToStart(const std::wstring& client_root, UpdateError& error);

}  // namespace talvex::example
