#include "formats/signed_manifest.h"

#include "core/manifest_signature.h"

namespace talvex {

bool LoadSignedManifest(const SignedPairPaths& pair, std::span<const std::byte> key_blob,
                        SignedManifest& signed_manifest, UpdateError& error) {
  signed_manifest = {};
  return ReadSignedPair(pair, signed_manifest.manifest_bytes, signed_manifest.signature, error) &&
         VerifySignedManifest(signed_manifest.manifest_bytes, signed_manifest.signature, key_blob,
                              signed_manifest.manifest, error);
}

bool ReadSignedPair(const SignedPairPaths& pair, ByteBuffer& manifest_bytes, ByteBuffer& signature,
                    UpdateError& error) {
  signature.clear();
  if (!ReadWholeFile(pair.manifest, kManifestSizeLimit, manifest_bytes, error)) {
    return false;
  }
  if (!ReadWholeFile(pair.signature, kSignatureSizeLimit, signature, error)) {
    manifest_bytes.clear();
    return false;
  }
  return true;
}

// Order: signature before manifest, because everything after it may treat each byte as the publisher's.
// Parsed first, an attacker's text would reach the path rules and choose the message that the player sees.
bool VerifySignedManifest(std::span<const std::byte> manifest_bytes, std::span<const std::byte> signature,
                          std::span<const std::byte> key_blob, Manifest& manifest, UpdateError& error) {
  manifest = {};
  return VerifyManifestSignature(manifest_bytes, signature, key_blob, error) &&
         ParseManifest(manifest_bytes, manifest, error);
}

}  // namespace talvex
