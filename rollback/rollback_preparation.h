#pragma once

// Saves, before an update changes its first client file, into the previous directory: recovery copies of the
// state and the cache, the new manifest with its signature, the helper that can roll back, and last the
// journal: once it exists, everything it refers to has been saved. (The replaced and retired client files are
// moved there by the installation itself.)

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "core/retry.h"
#include "core/update_error.h"
#include "formats/apply_operation.h"
#include "formats/manifest.h"

namespace talvex {

// Checks every target, creates the directories that installation and rollback need, saves the recovery
// copies, the manifest and the running helper, and writes the journal. Sets the existed flag of every
// operation. No client file is changed. `previous_directory` must exist and be empty; `files_directory` is
// its FilesDirectory. A failure leaves a partial work tree and no journal. Messages: those of
// CreateUpdateDirectory, CheckUpdateTarget, MakeRecoveryCopy, WriteNewFile, Sha256OfFile and
// SaveRollbackJournal, and
//   "The verified update cache directory is unsafe."
//   "The update helper could not prepare rollback recovery."   the running helper is not the one of the
//   release
[[nodiscard]] bool PrepareRollback(const std::wstring& client_root, const std::wstring& previous_directory,
                                   const std::wstring& files_directory, const Manifest& new_manifest,
                                   std::span<const std::byte> manifest_bytes,
                                   std::span<const std::byte> signature, std::span<ApplyOperation> operations,
                                   UpdateError& error);

// Whether the target of `operation` may be replaced or retired; sets its existed flag. A retired file must be
// the one that the previous release installed: a file that the user changed is never deleted. Messages: those
// of Sha256OfFile, and
//   "An update target is not a regular file."
//   "An update target has unsafe file links."                      also when it cannot be inspected
//   "A retired managed file changed locally and was not deleted."
[[nodiscard]] bool CheckUpdateTarget(ApplyOperation& operation, UpdateError& error);

// MakeRecoveryCopy if something exists at `source`; `present` says whether it did. What cannot be inspected
// does not count as absent.
[[nodiscard]] bool CopyIfPresent(const std::wstring& source, const std::wstring& destination, bool& present,
                                 RetryBudget& budget, UpdateError& error);

}  // namespace talvex
