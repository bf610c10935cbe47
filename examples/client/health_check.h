#pragma once

// Whether the installed release is whole and can start: what a client asks itself after an update, before it
// lets go of the copies of the previous release.

#include <string>

#include "core/update_error.h"
#include "formats/manifest.h"

namespace talvex::example {

// Whether the file of `entry` below `directory` is exactly the described one. Messages: those of
// ResolveCheckedPath and Sha256OfFile, and
//   "A file differs from its release."
[[nodiscard]] bool IsFileOfRelease(const std::wstring& directory, const ManifestEntry& entry,
                                   UpdateError& error);

// Loads the installed release and proves every one of its files. `expected` is the digest of the manifest
// that has to be installed, or null for whichever is recorded. What another program holds gets a second and a
// half to be let go. The first failure says which file it is about. Messages:
//   "No installed release can be proved."
//   "Another release than the one just installed is recorded."
//   path + ": " + a message of IsFileOfRelease
[[nodiscard]] bool CheckFiles(const std::wstring& client_root, const Sha256Digest* expected,
                              Manifest& installed, UpdateError& error);

// Tries to start the game, which a broken release answers with a refusal or by ending this process: here the
// file start.cfg says which ("start=ok", "start=crash", "start=die"). Messages: those of ReadWholeFile, and
//   "The start script asks for a crash."
[[nodiscard]] bool TryToStart(const std::wstring& client_root, UpdateError& error);

}  // namespace talvex::example
