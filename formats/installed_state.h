#pragma once

// Which signed release is installed in a client directory, as a file in its root:
//
//   TALVEX-UPDATE-STATE-V1
//   sequence         TAB  decimal, not 0
//   release          TAB  identifier
//   manifest-sha256  TAB  64 lowercase hexadecimal characters
//
// Anybody who can write to the directory can edit it; it is trusted only through LoadTrustedState.

#include <cstdint>
#include <string>
#include <string_view>

#include "core/sha256_digest.h"
#include "core/update_error.h"
#include "formats/manifest.h"

namespace talvex {

// A record that is not present has sequence 0, no release and a zero digest.
struct InstalledState {
  bool present = false;
  std::uint64_t sequence = 0;
  std::string release;
  Sha256Digest manifest_digest;
};

// Parses the text of a state file. A failure leaves the record not present. Messages:
//   "The installed update state has an invalid encoding."      also above 4,096 bytes
//   "The installed update state is incomplete."
//   "The installed update state has an invalid format."
//   "The installed update state has invalid release information."
//   "The installed update state has an invalid manifest digest."
[[nodiscard]] bool ParseInstalledStateText(std::string_view text, InstalledState& state, UpdateError& error);

// The file text that records `installed` as the installed release. Does not validate; the parser does.
[[nodiscard]] std::string FormatInstalledState(const Manifest& installed);

// Reads the state file. A missing file is success with a record that is not present: nothing was installed
// through the updater yet. A failure leaves the record not present. Messages: those of ReadWholeFile and
// ParseInstalledStateText.
[[nodiscard]] bool LoadInstalledState(std::wstring_view client_root, InstalledState& state,
                                      UpdateError& error);

// Records `installed` as the installed release, replacing the file whole. A failure leaves the old file in
// place. Messages: those of WriteNewFile, and
//   "Could not save the installed update state: " + Windows text
[[nodiscard]] bool SaveInstalledState(std::wstring_view client_root, const Manifest& installed,
                                      UpdateError& error);

}  // namespace talvex
