#pragma once

// Starts the updated client and passes it the digest of the installed manifest and the ownership lock.

#include <windows.h>

#include <string>

#include "core/child_process.h"
#include "core/update_error.h"
#include "formats/manifest.h"

namespace talvex {

// Starts Talvex.exe in `client_root`, with no arguments and with `lock` as the only handle it inherits. The
// handoff variables are in the environment only during the start. The update is installed by now, and a
// failure undoes nothing. Messages:
//   "The update health lock could not be inherited."
//   "The update finished, but Talvex could not set its restart handoff."
//   "The update finished, but Talvex could not restart with its health lock."
[[nodiscard]] bool RelaunchClient(const std::wstring& client_root, const Manifest& new_manifest, HANDLE lock,
                                  ChildProcess& client, UpdateError& error);

}  // namespace talvex
