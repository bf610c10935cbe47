#pragma once

// The only road from a manifest's bytes to a manifest that may be believed.

#include <cstddef>
#include <span>

#include "core/update_error.h"
#include "formats/manifest.h"

namespace talvex {

// Verifies `signature` over `manifest_bytes` with `key_blob`, and only then parses them. Messages: those of
// VerifyManifestSignature, then those of ParseManifest.
[[nodiscard]] bool VerifySignedManifest(std::span<const std::byte> manifest_bytes,
                                        std::span<const std::byte> signature,
                                        std::span<const std::byte> key_blob, Manifest& manifest,
                                        UpdateError& error);

}  // namespace talvex
