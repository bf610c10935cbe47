#include "formats/signed_manifest.h"

#include "core/manifest_signature.h"

namespace talvex {

// Order: signature before manifest, because everything after it may treat each byte as the publisher's.
// Parsed first, a stranger's text would reach the path rules and choose the sentence the player sees.
bool VerifySignedManifest(std::span<const std::byte> manifest_bytes, std::span<const std::byte> signature,
                          std::span<const std::byte> key_blob, Manifest& manifest, UpdateError& error) {
  manifest = {};
  return VerifyManifestSignature(manifest_bytes, signature, key_blob, error) &&
         ParseManifest(manifest_bytes, manifest, error);
}

}  // namespace talvex
