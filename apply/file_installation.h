#pragma once

// The changes themselves, one atomic file-system operation each. The operation that changes a file also makes
// its rollback copy, so at no moment does a file of the previous release exist nowhere.

#include <cstddef>
#include <limits>
#include <span>
#include <string>

#include "apply/transaction_display.h"
#include "core/retry.h"
#include "core/update_error.h"
#include "formats/apply_operation.h"

namespace talvex {

// The index of the operation after which the installation fails on purpose, to exercise restoration.
inline constexpr std::size_t kNoFaultInjection = std::numeric_limits<std::size_t>::max();

// Carries the operations out in order, setting each applied flag as soon as its change is made, and flushes
// every installed file. The directory of a target is held while the target is changed. A call that another
// program blocks (a virus scanner, an indexer) is retried, for at most two seconds per operation. Stops at
// the first failure and leaves the restoration to the caller. Progress is in operations. Messages: those of
// CreateUpdateDirectory, and
//   "An update target changed during installation."         also when its directory cannot be held
//   "Could not install a new update file."
//   "Could not create a rollback copy for a retired update file."
//   "Could not atomically replace an update file."
//   "Injected update replacement failure."
//   "An updated file could not be flushed safely before restart."   the change itself was made
[[nodiscard]] bool InstallApplyOperations(const std::wstring& client_root,
                                          const std::wstring& rollback_files_directory,
                                          std::span<ApplyOperation> operations, TransactionDisplay& display,
                                          std::size_t fault_injection_index, UpdateError& error);

// ReplaceFileW, written through, under the schedule. False leaves the last attempt's code as the last error.
[[nodiscard]] bool ReplaceFileWithRetry(const std::wstring& replaced, const std::wstring& replacement,
                                        const std::wstring& backup, RetrySchedule& schedule);

}  // namespace talvex
