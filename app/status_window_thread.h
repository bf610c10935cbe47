#pragma once

// The window's side of StatusWindow: its thread, which alone creates, shows and destroys the window.

#include <windows.h>

#include "app/status_window.h"

namespace talvex {

// Posted to the window: it destroys itself, and its thread ends.
inline constexpr UINT kStopStatusWindowMessage = WM_APP + 2;

// What the starter hands over. It has to last until the thread has signalled `ready`.
struct StatusWindowThreadStart {
  StatusBlock& shared;
  HANDLE ready;
};

// The thread, for CreateThread; `start` is a StatusWindowThreadStart. Signals `ready` once, when the window
// is there (its handle stands in `shared` then) or could not be made (null stands there).
DWORD WINAPI RunStatusWindowThread(void* start);

}  // namespace talvex
