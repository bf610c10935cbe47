#pragma once

// Keeps the work directory usable. Clearing never follows a link and never forces anything, so one name that
// it cannot remove (a link, an access list that denies, a file in the place of a directory) would stop every
// update for good. The holder of the lock moves such a thing out of the way: a rename follows nothing either.

#include <string>
#include <string_view>

#include "core/update_error.h"

namespace talvex::client {

// Renames what is at `path`, below the client root and exactly of this name, to a name beside the work
// directory that nothing has yet.
[[nodiscard]] bool MoveAside(const std::wstring& client_root, const std::wstring& path);

// Whether a file or a link stands where a directory belongs.
[[nodiscard]] bool BlocksDirectory(const std::wstring& path);

// Moves the work directory, and the previous directory in it, aside if they are not real directories.
void MakeWorkDirectoryUsable(const std::wstring& client_root);

// Moves the whole work directory aside, with all that was downloaded, unless a journal is or may be in it:
// the copies may be the only ones.
[[nodiscard]] bool MoveUnneededWorkAside(const std::wstring& client_root);

// Removes the previous directory, its journal first, or moves it aside, in the worst case with the whole work
// directory. Messages: those of RemovePreviousDirectory.
[[nodiscard]] bool ClearPrevious(const std::wstring& client_root, UpdateError& error);

// Makes the name `path` free for a file: removes or moves aside a directory, a link or a file with a second
// hard link, and makes any other file replaceable. Nothing to do when nothing is there. Messages: those of
// RemoveWorkTree, and
//   "Could not remove a file of an earlier update."
[[nodiscard]] bool ClearFileName(const std::wstring& client_root, const std::wstring& path,
                                 UpdateError& error);

// ClearFileName for what the helper is going to write beside the client's files: the state, the failure
// marker and the cached pair. What cannot be changed here, the helper rejects.
void ClearRecordNames(const std::wstring& client_root);

// Removes or moves aside every entry of the work directory except the previous directory and the stage named
// `kept_stage`, and what was moved aside earlier as far as that is possible by now; in the worst case
// MoveUnneededWorkAside. Messages: those of RemoveWorkTree, and
//   "Could not remove a file of an earlier update."
[[nodiscard]] bool ClearOtherStages(const std::wstring& client_root, std::wstring_view kept_stage,
                                    UpdateError& error);

}  // namespace talvex::client
