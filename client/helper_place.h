#pragma once

// A copy of the helper that nobody can exchange between its proof and its start.
//
// A running program can be neither replaced nor deleted: run from its stage, the helper could not clear the
// work directory, and run from the client directory it could not replace itself. So it is copied to a
// directory of its own, below the user's local application data (in the temporary folder, application control
// and attack surface rules often forbid programs to run).

#include <string>

#include "client/failure.h"
#include "core/owned_handle.h"
#include "formats/manifest.h"

namespace talvex::client {

// A copy that was proven and cannot change as long as `proof` is open.
struct PlacedHelper {
  std::wstring directory;
  std::wstring program;
  OwnedHandle proof;
};

// Proves that the file at `source` is the helper of `release`, copies it to a new directory that only this
// user, at this integrity level, can write to, and proves the copy. A base on a share, or on a volume without
// access lists, is passed over. Failures, all TALVEX_E_SYSTEM:
//   "There is no place for the update helper: " + Windows text
//   "The update helper could not be copied: " + Windows text
//   "The update helper is not the one of its release."
//   those of OpenVerifiedManagedFile
[[nodiscard]] talvex_result PlaceHelper(const std::wstring& client_root, const std::wstring& source,
                                        const Manifest& release, PlacedHelper& placed, Failure& failure);

// Removes the copies that earlier updates of the client in `client_root` have left, except one that still
// runs. (A helper that installed a release asks Windows to delete it at the next restart, which works for
// administrators only.) Deletes the one known file of each, then the directory, and never anything else.
void RemoveOldHelpers(const std::wstring& client_root);

}  // namespace talvex::client
