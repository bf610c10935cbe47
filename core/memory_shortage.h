#pragma once

// Turns running out of memory into an ordinary failure, where a transaction has to go on after it.

#include <new>

namespace talvex {

// Runs `step` and returns its result, or false when memory ran out in it. The step's allocations have been
// freed by then, so what follows (restoring, telling the user) has the memory that it needs.
template <typename Step>
[[nodiscard]] bool RunCatchingBadAlloc(Step step) {
  try {
    return step();
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace talvex
