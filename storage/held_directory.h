#pragma once

// Keeps a directory in its place while something below it is changed.

#include <string>

#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "core/retry.h"

namespace talvex {

// Opens the directory at `path` as itself, with the right to list it and shared for everything but deletion,
// and verifies through the handle that it is a real directory. As long as `held` is open, Windows lets nobody
// rename, delete or replace the directory or any directory above it. A path checked while the directory is
// held stays valid until the handle is closed; one checked only before may have been redirected in between.
// (One thing remains possible: a directory that is empty can be turned into a link where it stands.)
//
// Returns what was found; `held` owns a handle only after kDirectory. After kUnknown the last error is the
// reason.
[[nodiscard]] PathKind HoldDirectory(const std::wstring& path, OwnedHandle& held);

// HoldDirectory for the parent directory of `path`, retried under `schedule`.
[[nodiscard]] PathKind HoldParentOf(const std::wstring& path, RetrySchedule& schedule, OwnedHandle& held);

}  // namespace talvex
