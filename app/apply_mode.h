#pragma once

namespace talvex {

// Runs the --apply-plan mode on the whole argument vector: RunApplyTransaction, shown with the status window
// and message boxes.
[[nodiscard]] int RunApplyMode(int argument_count, const wchar_t* const* arguments);

}  // namespace talvex
