#pragma once

// Putting a client directory back as it was before an update, from what rollback_preparation saved and the
// installation moved away.
//
// Best effort: a file that cannot be restored does not keep the others from being restored, and the player
// learns where its copy lies. Copies are copied back, never moved, and nothing below the work directory is
// deleted, so that a restoration that was cut off can be run again, or be finished by hand. (A new file is
// moved back to its staged path where that is known, so that the update can be tried again.) Every call that
// somebody else can be in the way of is tried again, for half a minute in all.

#include <span>
#include <string>

#include "core/retry.h"
#include "core/update_error.h"
#include "formats/apply_operation.h"
#include "formats/rollback_journal.h"

namespace talvex {

// Undoes `operations`, then puts state and cache back, whether or not every file could be restored. False
// when anything is missing; the message is that of the first failure, files before state and cache.
[[nodiscard]] bool RestoreFromRollback(const std::wstring& client_root,
                                       const std::wstring& previous_directory, const RollbackJournal& journal,
                                       std::span<const ApplyOperation> operations, UpdateError& error);

// Says that files could not be put back, and that their copies lie at `copy_path`:
//   "Automatic restoration was incomplete. The rollback copy is at:\n" + `copy_path`
void SetRestorationIncomplete(UpdateError& error, const std::wstring& copy_path);

// Undoes the operations from the last to the first, going on past those that fail. The directory of a target
// is held while the target is changed, and no component on the way to target and copy may be a reparse point,
// before and after. Only the first failure sets a message: that of RejectReparsePoints, RemoveRollbackTarget
// or MakeRecoveryCopy, or, with the path of the copy, that of SetRestorationIncomplete, or
//   "A required rollback copy is missing."
[[nodiscard]] bool RestoreRollbackFiles(const std::wstring& client_root,
                                        std::span<const ApplyOperation> operations, RetryBudget& budget,
                                        UpdateError& error);

// Puts the installed state and the verified cache back as the journal's flags say, removing what did not
// exist before. Stops at its first failure. Messages: those of RemoveRollbackTarget, MakeRecoveryCopy,
// CreateUpdateDirectory and RemoveWorkTree.
[[nodiscard]] bool RestoreStateAndCache(const std::wstring& client_root,
                                        const std::wstring& previous_directory,
                                        const RollbackJournal& journal, RetryBudget& budget,
                                        UpdateError& error);

// RemoveRollbackTarget on `target`, then MakeRecoveryCopy from `copy` to it. The copy is opened and proven
// before the target goes: a bad copy costs nothing.
[[nodiscard]] bool RestoreRecoveryCopy(const std::wstring& copy, const std::wstring& target,
                                       RetryBudget& budget, UpdateError& error);

// Deletes the regular file `target`. True when it is gone or was never there. Messages:
//   "An updater rollback target is not a regular file."
//   "An updater rollback target has unsafe file links."   also when it cannot be inspected
//   "Could not remove a file during updater rollback."
[[nodiscard]] bool RemoveRollbackTarget(const std::wstring& target, RetryBudget& budget, UpdateError& error);

}  // namespace talvex
