#pragma once

// The failure marker in the client root: the manifest digest of a release that was installed, could not start
// and was rolled back. The helper only writes it; the client reads it and does not install that release
// again. 64 lowercase hexadecimal characters and an LF, nothing else.

#include <string_view>

#include "core/sha256_digest.h"
#include "core/update_error.h"

namespace talvex {

// Marks the release with `manifest_digest` as failed, replacing any earlier marker; a failure leaves the
// earlier one in place. Messages: those of WriteNewFile, and
//   "Could not save the update failure marker."
[[nodiscard]] bool SaveFailureMarker(std::wstring_view client_root, const Sha256Digest& manifest_digest,
                                     UpdateError& error);

// Gives the manifest digest of the marked release. False when there is no marker, or none that can be read.
[[nodiscard]] bool LoadFailureMarker(std::wstring_view client_root, Sha256Digest& manifest_digest);

// Whether the release with `manifest_digest` is marked. A marker that cannot be read counts as none.
[[nodiscard]] bool IsMarkedAsFailed(std::wstring_view client_root, const Sha256Digest& manifest_digest);

}  // namespace talvex
