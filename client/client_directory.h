#pragma once

// Which directory a client updates, and whether it can be updated at all.

#include <string>

#include "core/update_error.h"

namespace talvex::client {

// Sets `client_root` to the root of the client directory `given`, or when that is null, of the directory of
// the running program. Messages: those of ResolveClientRoot and RejectReparsePoints, and
//   "Talvex cannot be updated on a network drive."
//   "Talvex cannot be updated at the top of a drive."
[[nodiscard]] bool FindClientRoot(const wchar_t* given, std::wstring& client_root, UpdateError& error);

}  // namespace talvex::client
