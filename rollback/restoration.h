#pragma once

// Restores a client directory to its state before an update, from what rollback_preparation saved and the
// installation moved away.
//
// Best effort: a file that cannot be restored does not prevent the others from being restored, and the player
// is told where its copy is. Copies are copied back, never moved, and nothing below the work directory is
// deleted, so that a restoration that was cut off can be run again or finished by hand. (A new file is moved
// back to its staged path where that is known, so that the update can be tried again.) Every call that
// another program may block is retried, for half a minute in total.

#include <span>
#include <string>

#include "core/retry.h"
#include "core/update_error.h"
#include "formats/apply_operation.h"
#include "formats/rollback_journal.h"

namespace talvex {

// Undoes `operations`, then restores state and cache, whether or not every file could be restored. False when
// anything failed; the message is that of the first failure, files before state and cache.
[[nodiscard]] bool RestoreFromRollback(const std::wstring& client_root,
                                       const std::wstring& previous_directory, const RollbackJournal& journal,
                                       std::span<const ApplyOperation> operations, UpdateError& error);

// Sets the message that files could not be restored and that their copies are at `copy_path`:
//   "Automatic restoration was incomplete. The rollback copy is at:\n" + `copy_path`
void SetRestorationIncomplete(UpdateError& error, const std::wstring& copy_path);

// Undoes the operations from the last to the first, continuing past those that fail. The directory of a
// target is held while the target is changed, and no component of the paths to target and copy may be a
// reparse point, before and after. Only the first failure sets a message: that of RejectReparsePoints,
// RemoveRollbackTarget or MakeRecoveryCopy, that of SetRestorationIncomplete with the path of the copy, or
//   "A required rollback copy is missing."
[[nodiscard]] bool RestoreRollbackFiles(const std::wstring& client_root,
                                        std::span<const ApplyOperation> operations, RetryBudget& budget,
                                        UpdateError& error);

// Restores the installed state and the verified cache according to the journal's flags, removing what did not
// exist before. Stops at its first failure. Messages: those of RemoveRollbackTarget, MakeRecoveryCopy,
// CreateUpdateDirectory and RemoveWorkTree.
[[nodiscard]] bool RestoreStateAndCache(const std::wstring& client_root,
                                        const std::wstring& previous_directory,
                                        const RollbackJournal& journal, RetryBudget& budget,
                                        UpdateError& error);

// RemoveRollbackTarget on `target`, then MakeRecoveryCopy from `copy` to it. The copy is opened and checked
// before the target is removed: a bad copy does no harm.
[[nodiscard]] bool RestoreRecoveryCopy(const std::wstring& copy, const std::wstring& target,
                                       RetryBudget& budget, UpdateError& error);

// Deletes the regular file `target`. True when it is gone or was never there. Messages:
//   "An updater rollback target is not a regular file."
//   "An updater rollback target has unsafe file links."   also when it cannot be inspected
//   "Could not remove a file during updater rollback."
[[nodiscard]] bool RemoveRollbackTarget(const std::wstring& target, RetryBudget& budget, UpdateError& error);

}  // namespace talvex
