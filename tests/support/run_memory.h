#pragma once

// The memory of a run that faults are put into: its allocations can be counted and made to fail, and what a
// dead run has left can be given back. A program that links this has these operators new and delete.

namespace talvex::test {

// Asked at every allocation whether it belongs to the run; null: none does. May throw std::bad_alloc.
extern bool (*count_allocation)();

// Frees what belonged to the run and is still there.
void FreeRunMemory();

}  // namespace talvex::test
