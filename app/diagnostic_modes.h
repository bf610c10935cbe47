#pragma once

// The two modes that answer a question on the console and touch nothing: --verify-manifest and
// --validate-path. Both take the whole argument vector and return the exit code: 0 for a good verdict, 1 for
// a bad one, 2 for a wrong argument count, which is not reported in words. They never show a message box.

namespace talvex {

// Proves a manifest file with its signature file. Prints "OK release=... sequence=... files=...", or
// "ERROR: " and the reason.
[[nodiscard]] int RunVerifyManifest(int argument_count, const wchar_t* const* arguments);

// Judges one relative path. Prints "OK: " and the normalised path, or "REJECTED: " and the reason.
[[nodiscard]] int RunValidatePath(int argument_count, const wchar_t* const* arguments);

}  // namespace talvex
