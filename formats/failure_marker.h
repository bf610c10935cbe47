#pragma once

// The failure marker TalvexUpdateFailure.dat in the client root: the digest of the manifest of a release that
// was installed, could not start and was rolled back. The client reads it and does not offer that release
// again; the helper only ever writes it. 64 lowercase hexadecimal characters and one LF, nothing else.

#include <string_view>

#include "core/sha256_digest.h"
#include "core/update_error.h"

namespace talvex {

inline constexpr std::wstring_view kFailureMarkerFileName = L"TalvexUpdateFailure.dat";

// Marks the release with `manifest_digest` as failed, replacing an earlier marker whole; a failure leaves the
// earlier one in place. Messages: those of WriteNewFile, and
//   "Could not save the update failure marker."
[[nodiscard]] bool SaveFailureMarker(std::wstring_view client_root, const Sha256Digest& manifest_digest,
                                     UpdateError& error);

}  // namespace talvex
