#pragma once

// The changes themselves, one atomic file-system operation each. The same operation that changes a file also
// makes its rollback copy, so there is no moment at which a file of the previous release is nowhere.

#include <cstddef>
#include <limits>
#include <span>
#include <string>

#include "app/status_window.h"
#include "core/retry.h"
#include "core/update_error.h"
#include "formats/apply_operation.h"

namespace talvex {

// The index of the operation after whose change the installation fails on purpose, to exercise restoration.
inline constexpr std::size_t kNoFaultInjection = std::numeric_limits<std::size_t>::max();

// Carries the operations out in order, setting each applied flag as soon as its change is made, and flushes
// every installed file. The directory of a target is held while the target is changed. What somebody else (a
// virus scanner, an indexer) is in the way of is tried again, for at most two seconds an operation. Stops at
// the first failure and leaves what was done for the caller to restore. Progress is in operations. Messages:
// those of CreateUpdateDirectory, and
//   "An update target changed during installation."
//   "Could not install a new update file."
//   "Could not create a rollback copy for a retired update file."
//   "Could not atomically replace an update file."
//   "Injected update replacement failure."
//   "An updated file could not be flushed safely before restart."   the change itself was made
[[nodiscard]] bool InstallApplyOperations(const std::wstring& client_root,
                                          const std::wstring& rollback_files_directory,
                                          std::span<ApplyOperation> operations, StatusWindow& window,
                                          std::size_t fault_injection_index, UpdateError& error);

// ReplaceFileW, written through, under the schedule. False leaves the last attempt's code as the last error.
[[nodiscard]] bool ReplaceFileWithRetry(const std::wstring& replaced, const std::wstring& replacement,
                                        const std::wstring& backup, RetrySchedule& schedule);

}  // namespace talvex
