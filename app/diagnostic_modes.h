#pragma once

// The two modes that print a verdict on the console and change nothing: --verify-manifest and
// --validate-path. Both take the whole argument vector and return the exit code: 0 for a good verdict, 1 for
// a bad one, 2, without output, for a wrong argument count. They never show a message box.

namespace talvex {

// Verifies a manifest file with its signature file. Prints "OK release=... sequence=... files=...", or
// "ERROR: " and the reason.
[[nodiscard]] int RunVerifyManifest(int argument_count, const wchar_t* const* arguments);

// Validates one relative path. Prints "OK: " and the normalised path, or "REJECTED: " and the reason.
[[nodiscard]] int RunValidatePath(int argument_count, const wchar_t* const* arguments);

}  // namespace talvex
