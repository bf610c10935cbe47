#pragma once

// Starts another program with exactly the handles that it is meant to inherit.

#include <windows.h>

#include <string>
#include <vector>

#include "core/owned_handle.h"

namespace talvex {

// A process that was started, and its first thread.
struct ChildProcess {
  OwnedHandle thread;
  OwnedHandle process;
};

// Starts the program at the full path `program` in `directory`, with `command_line` and the environment of
// this process. It inherits exactly `handles`, which must already be inheritable, and no other handle.
// `creation_flags` are given to CreateProcessW besides those that this needs. False leaves the failing call's
// code as the last error.
[[nodiscard]] bool StartChildProcess(const std::wstring& program, std::wstring command_line,
                                     const std::wstring& directory, std::vector<HANDLE> handles,
                                     ChildProcess& child, DWORD creation_flags = 0);

// A duplicate of `handle`, with `access` and the `options` of DuplicateHandle, that a child can inherit.
// Invalid on failure, and then the last error is the reason.
[[nodiscard]] OwnedHandle DuplicateInheritable(HANDLE handle, DWORD access, DWORD options) noexcept;

}  // namespace talvex
