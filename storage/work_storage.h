#pragma once

// Removes the trees of the updater's work directory: never through a reparse point, each directory held while
// it is walked, without retries, stopping at the first failure.

#include <string>
#include <string_view>

#include "core/update_error.h"

namespace talvex {

// Removes `directory` and everything below it, read-only files included. True when it is gone or was never
// there. A failure leaves what was not yet removed. One failure sets no message: the listing finds nothing,
// not even ".", and the directory cannot be removed. Messages:
//   "An updater work directory is unsafe."                    the path is a file or a reparse point
//   "Could not inspect an updater work directory."            nor is it known to be gone
//   "An updater work directory contains a reparse point."     neither followed nor removed
//   "Could not remove old updater work data."
//   "Could not remove an old updater directory."
[[nodiscard]] bool RemoveWorkTree(const std::wstring& directory, UpdateError& error);

// RemoveWorkTree for the previous directory. Its journal is removed first, whatever else is there, and the
// rest only once the journal is known to be gone: an existing journal promises every copy that it names.
// Messages: those of RemoveWorkTree; a journal that stays gives
//   "Could not remove old updater work data."                 nothing else was removed
[[nodiscard]] bool RemovePreviousDirectory(const std::wstring& previous_directory, UpdateError& error);

// Removes every entry of `directory` except the one named `kept_name` (ASCII case ignored). Files directly in
// it are deleted as they are: a read-only one makes this fail. A missing directory is a success. Messages:
// those of RemoveWorkTree, and
//   "Updater storage contains an unsafe reparse point."       or is one itself
//   "Could not remove stale updater data."                    or its name ends in a dot or a blank
[[nodiscard]] bool ClearWorkDirectoryExcept(const std::wstring& directory, std::wstring_view kept_name,
                                            UpdateError& error);

}  // namespace talvex
