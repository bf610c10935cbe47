#include "app/status_window.h"

#include "app/status_window_thread.h"

namespace talvex {
namespace {

// How long StopStatusWindow waits before it repeats its request.
constexpr DWORD kStopRepeatMs = 250;

}  // namespace

bool StatusWindow::StartStatusWindow(std::wstring_view initial_text) noexcept {
  StoreText(initial_text);
  if (thread_.IsValid()) {
    return true;
  }
  const OwnedHandle ready(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!ready.IsValid()) {
    return false;
  }
  StatusWindowThreadStart start = {shared_, ready.Get()};
  thread_ = OwnedHandle(CreateThread(nullptr, 0, RunStatusWindowThread, &start, 0, &thread_id_));
  if (!thread_.IsValid()) {
    return false;
  }
  WaitForSingleObject(ready.Get(), INFINITE);
  bool window_exists = false;
  {
    const StatusLock lock(shared_);
    window_exists = shared_.window != nullptr;
  }
  if (!window_exists) {
    StopStatusWindow();
  }
  return window_exists;
}

void StatusWindow::SetStatusText(std::wstring_view text) noexcept {
  StoreText(text);
}

void StatusWindow::SetStatusProgress(std::uint64_t done, std::uint64_t total) noexcept {
  int progress = 0;
  if (total != 0) {
    progress = done >= total
                   ? kFullProgress
                   : static_cast<int>(static_cast<double>(done) * kFullProgress / static_cast<double>(total));
  }
  const StatusLock lock(shared_);
  if (progress != shared_.progress) {
    shared_.progress = progress;
    shared_.dirty = true;
  }
}

// Repeats the request until the thread has ended. In rare cases a single one cannot be delivered (a full
// message queue) or gets lost in a menu's own message loop, and the update must not wait for its window
// forever.
void StatusWindow::StopStatusWindow() noexcept {
  if (!thread_.IsValid()) {
    return;
  }
  do {
    HWND window = nullptr;
    {
      const StatusLock lock(shared_);
      window = shared_.window;
    }
    if (window == nullptr || !PostMessageW(window, kStopStatusWindowMessage, 0, 0)) {
      PostThreadMessageW(thread_id_, WM_QUIT, 0, 0);
    }
  } while (WaitForSingleObject(thread_.Get(), kStopRepeatMs) == WAIT_TIMEOUT);
  thread_.Reset();
  thread_id_ = 0;
}

// A text for which there is no memory is dropped; the window keeps the one it has.
void StatusWindow::StoreText(std::wstring_view text) noexcept {
  try {
    std::wstring copy(text);
    const StatusLock lock(shared_);
    shared_.text.swap(copy);
    shared_.dirty = true;
  } catch (...) {
    return;
  }
}

}  // namespace talvex
