#pragma once

// Which relative paths the helper may touch: one set of rules and messages for manifests, plans, journals and
// the command line. It is stricter than Windows: a path that passes means the same file on every Windows, in
// every locale, and never the updater's own state.

#include <string>
#include <string_view>

#include "core/update_error.h"

namespace talvex {

// Validates `path`, UTF-8 with "/" between segments, and returns it in `normalised_path` with "\" instead,
// letter case kept. A failure leaves `normalised_path` empty. Messages, in the order of the rules:
//   "The update manifest contains an unsafe relative path."
//   "The update manifest path is outside the supported ASCII file-name set."
//   "The update manifest path is not valid UTF-8."
//   "The update manifest contains an unsafe path segment."
//   "The update manifest path contains a forbidden character."
//   "The update manifest path targets updater state."
[[nodiscard]] bool ValidateRelativePath(std::string_view path, std::wstring& normalised_path,
                                        UpdateError& error);

// Whether a path below the client root, with "\" between segments, is the updater's own: its records, and
// what is in its directories.
[[nodiscard]] bool TargetsUpdaterState(std::wstring_view normalised_path);

// Whether Windows would open a device instead of a file for this segment: CON, PRN, AUX, NUL, COM1 to COM9 or
// LPT1 to LPT9 in any case, alone or before the first dot.
[[nodiscard]] bool IsReservedDeviceName(std::wstring_view segment) noexcept;

}  // namespace talvex
