#pragma once

// The rollback of a release that was installed but could not start: the journal that the update left is
// checked row by row against signed manifests, the previous release is restored, and the failed one is
// marked. Called by the rollback mode once it holds the ownership lock.

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "core/update_error.h"
#include "formats/apply_operation.h"
#include "formats/manifest.h"
#include "formats/rollback_journal.h"

namespace talvex {

// Restores the client below `client_root` (absolute). Nothing is changed before every row is checked; the
// work data is removed only after everything was restored and the failure marker written, so that a rollback
// that failed or was cut off can be run again. Messages: those of RejectReparsePoints, ParseRollbackJournal,
// VerifyRecoveryManifest, CheckJournalAgainstManifests, RestoreFromRollback and SaveFailureMarker.
[[nodiscard]] bool RunRollbackTransaction(const std::wstring& client_root, UpdateError& error);

// Turns the journal's rows, in their order, into restore operations. Each row must be listed, in exactly the
// same spelling, in the manifest responsible for it: a retired file in `previous_manifest` (null when no
// previous release could be verified), any other in `recovery_manifest`. Messages: those of ResolveUpdatePath
// and RejectReparsePoints, and
//   "The rollback cannot prove a retired managed file."
//   "The rollback journal contains an unsigned file."
//   "The rollback journal tries to retire a current file."
[[nodiscard]] bool CheckJournalAgainstManifests(const std::wstring& client_root,
                                                const std::wstring& previous_directory,
                                                const RollbackJournal& journal,
                                                const Manifest& recovery_manifest,
                                                const Manifest* previous_manifest,
                                                std::vector<ApplyOperation>& operations, UpdateError& error);

}  // namespace talvex
