#pragma once

// The signed manifest and signature of the installed release, kept in a directory of the client root, and the
// decisions based on them: which installed release is trusted, and which offered release may replace it.

#include <cstddef>
#include <span>
#include <string_view>

#include "core/update_error.h"
#include "core/whole_file.h"
#include "formats/installed_state.h"
#include "formats/manifest.h"

namespace talvex {

// Reads the cached manifest and signature, unverified. Messages: those of ReadWholeFile, and
//   "No verified update cache is available."   the directory is missing, a file or a reparse point
[[nodiscard]] bool LoadVerifiedCache(std::wstring_view client_root, ByteBuffer& manifest_bytes,
                                     ByteBuffer& signature, UpdateError& error);

// Replaces both cached files. Messages: those of CreateUpdateDirectory and WriteNewFile, and
//   "Could not save the verified update cache: " + Windows text
// When only the second move fails, a new signature is left beside the old manifest. The pair does not verify,
// so no installed release is trusted until the next save: an update is then accepted whatever its sequence.
[[nodiscard]] bool SaveVerifiedCache(std::wstring_view client_root, std::span<const std::byte> manifest_bytes,
                                     std::span<const std::byte> signature, UpdateError& error);

// Loads the installed release and its manifest when the recorded state, the cached manifest and its signature
// under `key_blob` all agree. Otherwise false, with `state` not present and an empty `manifest`; no reason is
// given, because an unverified record counts as none. The optional outputs receive the exact cached bytes.
[[nodiscard]] bool LoadTrustedState(std::wstring_view client_root, std::span<const std::byte> key_blob,
                                    InstalledState& state, Manifest& manifest,
                                    ByteBuffer* manifest_bytes = nullptr, ByteBuffer* signature = nullptr);

// Accepts a release with a higher sequence than the trusted one, the very same release again, and any release
// when there is no trusted one. The release name is ignored. Messages:
//   "The update server offered an older release. The update was rejected."
//   "The update server changed a release without increasing its sequence."
[[nodiscard]] bool CheckReleaseOrder(const InstalledState& trusted, const Manifest& offered,
                                     UpdateError& error);

}  // namespace talvex
