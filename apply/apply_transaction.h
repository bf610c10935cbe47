#pragma once

// One update from its operands to the restart of the client.
//
// What holds when the helper stops, for whatever reason:
//   until both waits have succeeded    the client directory is untouched
//   until the journal is in place      no client file has changed; the next run clears what was prepared
//   until the state is saved           every changed file's previous version is in previous\files and the
//                                      journal names it; the rollback mode restores it
//   from then on                       the new release is installed and recorded
// A failure that the helper survives is undone at once, from the same copies.

#include "apply/transaction_display.h"

namespace talvex {

// Runs the --apply-plan mode on the whole argument vector. Returns the exit code: 0 when the release was
// installed, verified and recorded and the client was started; 1 for every failure, which was shown to the
// user; 2 when the argument count is wrong, with nothing shown and nothing touched.
[[nodiscard]] int RunApplyTransaction(int argument_count, const wchar_t* const* arguments,
                                      TransactionDisplay& display);

}  // namespace talvex
