#pragma once

// Copies of files that nothing else keeps, made before an update and copied back by a restoration.

#include <windows.h>

#include <string>

#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "core/retry.h"
#include "core/update_error.h"

namespace talvex {

// The total time that the copies of one preparation, or one whole restoration, may spend on retries.
inline constexpr DWORD kMaxRecoveryWaitMs = 30'000;

// Copies the regular file `source` to `destination`, which must not exist, and forces the copy to disk. Each
// call is retried on transient errors. Messages:
//   "An updater recovery source is not a regular file."   also when it cannot be opened
//   "Could not create an updater recovery copy."
//   "Could not flush an updater recovery copy."           the copy stays
[[nodiscard]] bool MakeRecoveryCopy(const std::wstring& source, const std::wstring& destination,
                                    RetryBudget& budget, UpdateError& error);

// The two halves of MakeRecoveryCopy. Opened with GENERIC_READ, the source cannot be written, moved or
// deleted by anybody while the handle is open; FILE_READ_ATTRIBUTES is enough to inspect it.
[[nodiscard]] OwnedHandle OpenRecoverySource(const std::wstring& source, DWORD access, RetryBudget& budget,
                                             UpdateError& error);
[[nodiscard]] bool CopyRecoverySource(const std::wstring& source, const std::wstring& destination,
                                      RetryBudget& budget, UpdateError& error);

// ProbePath, retried on transient errors.
[[nodiscard]] PathKind ProbePathWithRetry(const std::wstring& path, RetryBudget& budget);

}  // namespace talvex
