#pragma once

// Keeping a directory in its place while something below it is changed.

#include <string>

#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "core/retry.h"

namespace talvex {

// Opens the directory at `path` as itself, with the right to list it and shared for everything but deletion,
// and proves on the handle that it is a real directory. As long as `held` is open, Windows lets nobody
// rename, delete or exchange the directory or any directory above it. A path that is checked while it is held
// leads where it did until it is let go; one that was only checked before may have been exchanged in between.
//
// Yields what was found; `held` owns a handle after kDirectory alone. After kUnknown the last error is why.
[[nodiscard]] PathKind HoldDirectory(const std::wstring& path, OwnedHandle& held);

// HoldDirectory for the directory that `path` lies in, tried again under `schedule`.
[[nodiscard]] PathKind HoldParentOf(const std::wstring& path, RetrySchedule& schedule, OwnedHandle& held);

}  // namespace talvex
