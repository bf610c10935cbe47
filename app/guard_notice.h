#pragma once

// The mode --guard-error <code> <parent-handle>: the client's security monitor has closed the client, and the
// helper, which outlives it, informs the user.

namespace talvex {

// Runs the mode on the whole argument vector and returns the exit code: 0 when the notice was shown, 1 when
// the handle is unusable or the client is still running after five minutes, 2 for a wrong argument count.
// Nothing is shown except with exit code 0.
[[nodiscard]] int RunGuardNotice(int argument_count, const wchar_t* const* arguments);

}  // namespace talvex
