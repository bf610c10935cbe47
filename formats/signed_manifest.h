#pragma once

// The only way from the files of a manifest to a trusted manifest.

#include <cstddef>
#include <span>

#include "core/update_error.h"
#include "core/whole_file.h"
#include "formats/manifest.h"
#include "storage/update_layout.h"

namespace talvex {

// A manifest, and the bytes that prove it.
struct SignedManifest {
  ByteBuffer manifest_bytes;
  ByteBuffer signature;
  Manifest manifest;
};

// Reads the two files of `pair`, verifies them with `key_blob` and only then parses the manifest. After a
// failure `signed_manifest` must not be used. Messages: those of ReadWholeFile and VerifySignedManifest.
[[nodiscard]] bool LoadSignedManifest(const SignedPairPaths& pair, std::span<const std::byte> key_blob,
                                      SignedManifest& signed_manifest, UpdateError& error);

// The two steps of LoadSignedManifest.
//
// Reads the files, each under its limit. A failure leaves both buffers empty. Messages: those of
// ReadWholeFile.
[[nodiscard]] bool ReadSignedPair(const SignedPairPaths& pair, ByteBuffer& manifest_bytes,
                                  ByteBuffer& signature, UpdateError& error);
// Verifies `signature` over `manifest_bytes` with `key_blob`, and only then parses them. Messages: those of
// VerifyManifestSignature, then those of ParseManifest.
[[nodiscard]] bool VerifySignedManifest(std::span<const std::byte> manifest_bytes,
                                        std::span<const std::byte> signature,
                                        std::span<const std::byte> key_blob, Manifest& manifest,
                                        UpdateError& error);

}  // namespace talvex
