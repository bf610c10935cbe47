#pragma once

// What the helper passes to the client that it starts after an update, in that process's environment.

namespace talvex {

// The digest of the installed manifest, as 64 lowercase hexadecimal characters.
inline constexpr wchar_t kRelaunchedManifestVariable[] = L"TALVEX_UPDATE_RELAUNCHED_MANIFEST";
// The value of the inherited handle to the ownership lock, in decimal.
inline constexpr wchar_t kHealthLockVariable[] = L"TALVEX_UPDATE_HEALTH_LOCK_HANDLE";

}  // namespace talvex
