#pragma once

namespace talvex {

// Runs the --rollback-journal mode on the whole argument vector: waits for the client to close, takes the
// ownership lock, restores the previous release and informs the user. Nothing below the client root is read
// or changed before the lock is held. Returns the exit code: 0 when the previous release is restored, 1 for
// every failure, which was shown to the user, 2 for a wrong argument count, with nothing shown.
[[nodiscard]] int RunRollbackMode(int argument_count, const wchar_t* const* arguments);

}  // namespace talvex
