#pragma once

// The exit codes of every mode of the helper.

namespace talvex {

inline constexpr int kExitDone = 0;    // the mode did its job
inline constexpr int kExitFailed = 1;  // the mode ran and failed
inline constexpr int kExitUsage = 2;   // the command line could not be used

}  // namespace talvex
