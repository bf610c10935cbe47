#pragma once

// Whether players who have one release can install another, and what it costs them. Each release is a good
// one by itself (release_verification.h); these are mistakes that only the two together show.

#include <cstddef>
#include <cstdint>

#include "formats/manifest.h"
#include "formats/update_changes.h"
#include "publisher/findings.h"

namespace talvex {

// An update from one release to another.
struct ReleaseComparison {
  std::size_t added = 0;    // files that only the new release has
  std::size_t changed = 0;  // files whose contents differ
  std::size_t retired = 0;  // files that only the old release has
  // Bytes of the added and changed files; without any, of the one that the client installs nevertheless.
  std::uint64_t download_size = 0;
  UpdateSize size;
  UpdateSize worst_size;  // for a player who has damaged every file
};

// Which key signed the two releases.
enum class KeyChange { kSameKey, kOtherKey };

// Compares the verified manifests of the two releases. Findings, whose subjects name the old release: what
// keeps clients from installing the new one (errors), and what is probably not meant (warnings).
//
// After a change of keys the new release's helper cannot verify the old release, so no file can be retired by
// the update: the new release has to carry all of them.
[[nodiscard]] ReleaseComparison CompareManifests(const Manifest& new_manifest, const Manifest& old_manifest,
                                                 KeyChange keys, Findings& findings);

}  // namespace talvex
