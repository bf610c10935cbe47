#pragma once

// Stages a release: lays out what the helper is going to install, as the helper expects it.
//
// In .talvex-update\<digest of the manifest>:
//   manifest.txt, manifest.sig     as downloaded, byte for byte
//   apply.plan                     what to install and what to delete
//   files                          the files that the plan installs, and no others

#include <string>
#include <vector>

#include "core/sha256_digest.h"
#include "core/update_error.h"
#include "examples/client/release_offer.h"
#include "formats/manifest.h"

namespace talvex::example {

// What turns the client directory into the offered release. The entries belong to the offer.
struct ReleaseChanges {
  std::vector<const ManifestEntry*> installs;  // missing here, or different
  std::vector<const ManifestEntry*> retires;   // files of the installed release that the new one lacks
};

// Compares every file with the offered release. No changes means that the release is installed, intact and
// recorded.
[[nodiscard]] ReleaseChanges FindChanges(const std::wstring& client_root, const ReleaseOffer& offer);

struct StagedRelease {
  std::wstring stage_root;
  Sha256Digest plan_digest;
  std::wstring helper_path;  // the new release's helper: staged, or in the client directory if it stays
};

// Copies the changed files from the release, verifies each copy, and writes the plan. Other staged releases
// are removed first; what is needed to undo the last update stays until the helper replaces it. A failure
// leaves a partial stage, which the next staging removes. Messages: those of the file operations, of the
// plan's own parser, path + ": " + a message of IsFileOfRelease, and
//   "A file of the release could not be copied: " + Windows text
//   "The release has no update helper of its own."
[[nodiscard]] bool StageRelease(const std::wstring& client_root, const ReleaseOffer& offer,
                                const ReleaseChanges& changes, StagedRelease& staged, UpdateError& error);

}  // namespace talvex::example
