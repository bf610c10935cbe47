#pragma once

// The two verifications around every installation: of each staged file before anything changes, and of each
// file of the new release once it is in place.

#include <string>
#include <vector>

#include "apply/transaction_display.h"
#include "core/update_error.h"
#include "formats/apply_operation.h"
#include "formats/manifest.h"

namespace talvex {

// Verifies the staged file of every entry by size and digest, and appends an install operation for each.
// Progress is in bytes of all staged files, after each file. Messages: those of ResolveUpdatePath,
// RejectReparsePoints and Sha256OfFile, and
//   "A staged update file failed verification."
[[nodiscard]] bool VerifyStagedFiles(const std::wstring& staged_files_directory,
                                     const std::wstring& client_root,
                                     const std::wstring& rollback_files_directory,
                                     const std::vector<const ManifestEntry*>& install_entries,
                                     std::vector<ApplyOperation>& operations, TransactionDisplay& display,
                                     UpdateError& error);

// Verifies every file of `new_manifest` in place, including those that the plan did not touch. Progress is in
// bytes of the whole release, and also reported within files. Messages: those of ResolveUpdatePath,
// RejectReparsePoints and Sha256OfFile, and
//   "An installed update file failed verification."
[[nodiscard]] bool VerifyInstalledFiles(const std::wstring& client_root, const Manifest& new_manifest,
                                        TransactionDisplay& display, UpdateError& error);

}  // namespace talvex
