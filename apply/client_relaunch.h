#pragma once

// The start of the updated client, with the release it has just received and the ownership lock handed on.

#include <windows.h>

#include <string>
#include <string_view>

#include "core/owned_handle.h"
#include "core/update_error.h"
#include "formats/manifest.h"

namespace talvex {

inline constexpr std::wstring_view kClientFileName = L"Talvex.exe";

// The handoff environment: the digest of the installed manifest as 64 lowercase hexadecimal characters, and
// the value of the inherited lock handle in decimal.
inline constexpr wchar_t kRelaunchedManifestVariable[] = L"TALVEX_UPDATE_RELAUNCHED_MANIFEST";
inline constexpr wchar_t kHealthLockVariable[] = L"TALVEX_UPDATE_HEALTH_LOCK_HANDLE";

// A client that was started.
struct RelaunchedClient {
  OwnedHandle process;
  OwnedHandle thread;
};

// Starts Talvex.exe in `client_root`, with no arguments and with `lock` as the only handle it inherits. The
// two variables are in the environment for the time of the start alone. The update is installed by now, and
// a failure undoes nothing. Messages:
//   "The update health lock could not be inherited."
//   "The update finished, but Talvex could not set its restart handoff."
//   "The update finished, but Talvex could not restart with its health lock."
[[nodiscard]] bool RelaunchClient(const std::wstring& client_root, const Manifest& new_manifest, HANDLE lock,
                                  RelaunchedClient& client, UpdateError& error);

}  // namespace talvex
