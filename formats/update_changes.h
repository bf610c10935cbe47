#pragma once

// What one update changes, and whether its records have room for it. The client's library plans an update by
// these rules, and the publisher's tool foresees by the same ones what will happen at the players'.

#include <cstddef>
#include <vector>

#include "core/sha256_digest.h"
#include "formats/manifest.h"

namespace talvex {

// The entries belong to the manifests of the new and of the installed release.
struct UpdateChanges {
  std::vector<const ManifestEntry*> installs;  // missing or different here
  std::vector<const ManifestEntry*> retires;   // of the installed release, not of the new one

  [[nodiscard]] bool Empty() const noexcept { return installs.empty() && retires.empty(); }
};

// Lets `changes`, which are empty, install the smallest file of `new_manifest`. A plan needs a row, also when
// every file matches and the helper has only to record the release.
void InstallSmallestFile(const Manifest& new_manifest, UpdateChanges& changes);

// The size in bytes of the two records whose size is limited.
struct UpdateSize {
  std::size_t plan = 0;
  std::size_t journal = 0;
};

[[nodiscard]] UpdateSize MeasureUpdate(const Sha256Digest& manifest_digest, const UpdateChanges& changes);

// Whether plan and journal have room for `changes`. They always have it for what is installed, at most
// kManifestFileLimit files, and for some of the retired ones.
[[nodiscard]] bool FitIntoOneUpdate(const Sha256Digest& manifest_digest, const UpdateChanges& changes);

// Takes all retired files out of `changes`, which do not fit into one update: they stay on the disk and no
// release manages them any more, but the update goes through.
void KeepRetiredFiles(const Manifest& new_manifest, UpdateChanges& changes);

}  // namespace talvex
