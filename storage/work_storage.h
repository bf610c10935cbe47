#pragma once

// The updater's work directory in the client root, and how its trees are removed: never through a reparse
// point, each directory held while it is walked, without retries, the first failure ending the walk.

#include <string>
#include <string_view>

#include "core/update_error.h"

namespace talvex {

// Directly in the client root: staged releases and, below kPreviousDirectoryName, what undoes an update.
inline constexpr std::wstring_view kWorkDirectoryName = L".talvex-update";
inline constexpr std::wstring_view kPreviousDirectoryName = L"previous";
// In the previous directory, while what is kept there can undo the update.
inline constexpr std::wstring_view kRollbackJournalName = L"rollback.journal";

// Removes `directory` and everything below it, read-only files included. True when it is gone or was never
// there. A failure leaves what was not yet removed. One leaves no message: when not even the directory's own
// entries can be listed, and it cannot be removed either. Messages:
//   "An updater work directory is unsafe."                    the path is a file or a reparse point
//   "Could not inspect an updater work directory."
//   "An updater work directory contains a reparse point."     neither followed nor removed
//   "Could not remove old updater work data."
//   "Could not remove an old updater directory."
[[nodiscard]] bool RemoveWorkTree(const std::wstring& directory, UpdateError& error);

// RemoveWorkTree for the previous directory. Its journal goes first, whatever else is there, and only once it
// is known to be gone the rest: a journal that stands promises every copy that it names. Messages: those of
// RemoveWorkTree; a journal that stays gives
//   "Could not remove old updater work data."                 nothing else was removed
[[nodiscard]] bool RemovePreviousDirectory(const std::wstring& previous_directory, UpdateError& error);

// Removes every entry of `directory` but the one named `kept_name` (A to Z in either case). Files directly
// in it are deleted as they are: a read-only one makes this fail. A missing directory has nothing to clear.
// Messages: those of RemoveWorkTree, and
//   "Updater storage contains an unsafe reparse point."
//   "Could not remove stale updater data."
[[nodiscard]] bool ClearWorkDirectoryExcept(const std::wstring& directory, std::wstring_view kept_name,
                                            UpdateError& error);

}  // namespace talvex
