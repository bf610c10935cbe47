#pragma once

// What is saved before an update changes its first client file. Below .talvex-update\previous:
//
//   files\             the replaced and retired client files; moved there by the installation itself
//   old-install\       recovery copies of TalvexUpdateState.dat and of .talvex-update-cache
//   recovery\          the new manifest, its signature, and the helper that can roll back
//   rollback.journal   written last: once it is there, everything it refers to has been saved

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "core/retry.h"
#include "core/update_error.h"
#include "formats/apply_operation.h"
#include "formats/manifest.h"

namespace talvex {

// Where everything lies below the previous directory.
inline constexpr std::wstring_view kRollbackFilesName = L"files";
inline constexpr std::wstring_view kOldInstallName = L"old-install";
inline constexpr std::wstring_view kRecoveryName = L"recovery";
inline constexpr std::wstring_view kRecoveryManifestName = L"new-manifest.txt";
inline constexpr std::wstring_view kRecoverySignatureName = L"new-manifest.sig";
inline constexpr std::wstring_view kRecoveryHelperName = L"rollback-helper.exe";

// The helper's own entry in every release.
inline constexpr std::wstring_view kHelperFileName = L"TalvexUpdateHelper.exe";

// Checks every target, makes the directories that installation and rollback need, saves the recovery copies,
// the manifest and the running helper, and writes the journal. Sets the existed flag of every operation. No
// client file is changed. `previous_directory` exists and is empty; `files_directory` is the full path of its
// kRollbackFilesName. A failure leaves a partial work tree and no journal. Messages: those of
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

// Whether the target of `operation` may be replaced or retired; sets its existed flag. A retired file has to
// be the one that the previous release installed: a file that the user changed is never deleted. Messages:
// those of Sha256OfFile, and
//   "An update target is not a regular file."
//   "An update target has unsafe file links."                      also when it cannot be inspected
//   "A retired managed file changed locally and was not deleted."
[[nodiscard]] bool CheckUpdateTarget(ApplyOperation& operation, UpdateError& error);

// MakeRecoveryCopy when there is something at `source`; `present` says whether there was. What cannot be
// looked at is not taken for absent.
[[nodiscard]] bool CopyIfPresent(const std::wstring& source, const std::wstring& destination, bool& present,
                                 RetryBudget& budget, UpdateError& error);

}  // namespace talvex
