#pragma once

// The apply plan: the client's statement of what an update changes. Every row is checked against a signed
// manifest, so that a plan can leave files out but never name one that the publisher did not.
//
//   TALVEX-APPLY-V1
//   manifest-sha256  TAB  64 lowercase hexadecimal characters
//   file             TAB  relative path        install this file of the new manifest
//   delete           TAB  relative path        retire this file of the installed release
//
// At least one row, in any order.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "core/sha256_digest.h"
#include "core/update_error.h"
#include "formats/manifest.h"

namespace talvex {

inline constexpr std::uint32_t kApplyPlanSizeLimit = 262'144;  // bytes

// Parses `bytes` into entries of `new_manifest` to install and entries of `current_manifest` to retire, each
// in row order; the entries belong to the manifests. `current_manifest` is null when no installed release
// could be verified. After a failure the lists may be partly filled. Messages, besides those of
// ValidateRelativePath:
//   "The update apply plan has an invalid encoding."
//   "The update apply plan is incomplete."
//   "The update apply plan header is invalid."
//   "The update apply plan has no manifest digest."
//   "The update apply plan targets a different manifest."
//   "The update apply plan has an invalid file row."
//   "The update apply plan contains a duplicate file."        case ignored, in any mix of the two kinds
//   "The update apply plan cannot prove a managed file removal."
//   "The update apply plan contains a file outside the signed manifest."
//   "The update apply plan tries to delete a current file."
//   "The update apply plan contains no files."
[[nodiscard]] bool ParseApplyPlan(std::span<const std::byte> bytes, const Manifest& new_manifest,
                                  const Manifest* current_manifest, const Sha256Digest& manifest_digest,
                                  std::vector<const ManifestEntry*>& install_entries,
                                  std::vector<const ManifestEntry*>& retire_entries, UpdateError& error);

// The file text of a plan for the manifest with `manifest_digest`: a row for every entry to install, then for
// every entry to retire. Does not validate; the parser does.
[[nodiscard]] std::string FormatApplyPlan(const Sha256Digest& manifest_digest,
                                          std::span<const ManifestEntry* const> install_entries,
                                          std::span<const ManifestEntry* const> retire_entries);

}  // namespace talvex
