#pragma once

// Running out of memory as an ordinary failure, where a transaction has to go on after it.

#include <new>

namespace talvex {

// Runs `step` and yields its result, or false when memory ran out in it. What the step has allocated is free
// again by then, so that what follows (restoring, telling the user) has the memory that it needs.
template <typename Step>
[[nodiscard]] bool SucceedsInMemory(Step step) {
  try {
    return step();
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace talvex
