#pragma once

// Which release is installed in a client directory, and whether its files are whole.

#include <cstddef>
#include <cstdint>
#include <string>

#include "client/callbacks.h"
#include "client/trusted_keys.h"
#include "core/update_error.h"
#include "formats/manifest.h"

namespace talvex::client {

struct InstalledRelease {
  // State, cache and signature agree. Otherwise the manifest is that of the cache if one of the keys has
  // signed it, and only says which releases would be older; or it is empty.
  bool is_proven = false;
  std::size_t key = 0;  // index of the key that has signed it
  Manifest manifest;
};

[[nodiscard]] InstalledRelease LoadInstalledRelease(const std::wstring& client_root, const TrustedKeys& keys);

// Whether `offered` may be installed over `installed`: it has a higher sequence, or is the very same release.
// The state file is anybody's to edit, so the cached manifest counts even when it does not match, and so does
// `lowest_sequence`. Messages: those of CheckReleaseOrder.
[[nodiscard]] bool MayFollow(const InstalledRelease& installed, std::uint64_t lowest_sequence,
                             const Manifest& offered, UpdateError& error);

// Whether the file of `entry` below `directory` is exactly the described one. Messages: those of
// ResolveCheckedPath and VerifyManagedFile, and
//   "A file differs from its release."
[[nodiscard]] bool IsFileOfRelease(const std::wstring& directory, const ManifestEntry& entry,
                                   PhaseProgress& progress, UpdateError& error);

// Verifies every file of the installed release. `expected` is the digest of the manifest that must be
// installed, or null for whichever is recorded or, should the state be damaged, for that of the cache: one
// changed byte must not keep whole files from being played. Failures are retried for a second and a half,
// because another program may hold a file. The message names the first file that failed. Messages:
//   "No installed release can be proved."
//   "Another release than the one just installed is recorded."
//   path + ": " + a message of IsFileOfRelease
[[nodiscard]] bool VerifyInstalledRelease(const std::wstring& client_root, const TrustedKeys& keys,
                                          const Sha256Digest* expected, const Callbacks& callbacks,
                                          Manifest& installed, UpdateError& error);

}  // namespace talvex::client
