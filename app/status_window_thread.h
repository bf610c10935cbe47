#pragma once

// The window's side of StatusWindow: its thread, which alone creates, shows and destroys the window.

#include <windows.h>

#include "app/status_window.h"

namespace talvex {

// Posted to the window: it destroys itself, and its thread ends.
inline constexpr UINT kStopStatusWindowMessage = WM_APP + 2;

// The thread's parameters. They must stay valid until the thread has signalled `ready`.
struct StatusWindowThreadStart {
  StatusBlock& shared;
  HANDLE ready;
};

// The thread, for CreateThread; `start` is a StatusWindowThreadStart. Signals `ready` once, when the window
// exists (its handle is then in `shared`) or could not be created (null).
DWORD WINAPI RunStatusWindowThread(void* start);

}  // namespace talvex
