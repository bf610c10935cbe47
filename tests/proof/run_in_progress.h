#pragma once

// The run in progress: the calls that the product makes on it are caught in caught_calls.cpp, and
// fault_injection.cpp decides what becomes of each.

#include <windows.h>

#include <map>

#include "tests/proof/fault_injection.h"

namespace talvex::test {

extern const RunSettings* settings;
extern RunRecord* record;
extern bool in_hook;       // what the run's thread does now is the test's own
extern int pending_looks;  // at a deleted file that somebody still has open, that are still refused
extern std::map<void*, ApiCall> opened_by;

// Whether a call comes from the product, on a run.
[[nodiscard]] bool OnRun();

// The code with which the call fails, or ERROR_SUCCESS when it is to be made.
[[nodiscard]] DWORD DecideAbout(ApiCall& call);

// What follows from a call that was made, or has failed.
void FollowUp(const ApiCall& call);

[[nodiscard]] bool ClosesHandle(const ApiCall& call);

// Catches every call of the product that touches a file, a handle, a mutex, a process or a hash. The patches
// stay for the rest of the program; calls outside a run go straight through.
void PatchImports();

}  // namespace talvex::test
