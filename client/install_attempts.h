#pragma once

// How often a release was given to the helper without success. A release that can never be installed here,
// because a scanner always holds a file for instance, must not close and reopen the game at every start.
//
//   TALVEX-UPDATE-ATTEMPTS-V1
//   manifest-sha256  TAB  64 lowercase hexadecimal characters
//   count            TAB  decimal
//   last             TAB  decimal: seconds since 1970 UTC
//
// Beside the work directory, where no clearing reaches it. Anybody can edit it: all that it can do is to
// postpone an update for a day.

#include <cstdint>
#include <string>

#include "core/sha256_digest.h"

namespace talvex::client {

// Seconds until the release with `manifest_digest` may be tried again; 0: now. The first three attempts
// follow each other freely; the fourth comes an hour after the third, the fifth four hours later, the sixth
// sixteen hours later, and each further one a day later.
[[nodiscard]] std::uint64_t SecondsUntilNextAttempt(const std::wstring& client_root,
                                                    const Sha256Digest& manifest_digest);

// How often the release was tried so far.
[[nodiscard]] std::uint64_t CountAttempts(const std::wstring& client_root,
                                          const Sha256Digest& manifest_digest);

// Counts an attempt; forgets those of any other release. What cannot be written is not counted.
void RecordAttempt(const std::wstring& client_root, const Sha256Digest& manifest_digest);

// Forgets all attempts: the release was installed.
void ForgetAttempts(const std::wstring& client_root);

}  // namespace talvex::client
