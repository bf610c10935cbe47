#include "app/status_window_thread.h"

#include <windows.h>

#include <commctrl.h>
#include <shellapi.h>

#include <memory>
#include <string>
#include <utility>

#include "app/reporting.h"
#include "app/tray_icon.h"
#include "core/system_library.h"

namespace talvex {
namespace {

constexpr wchar_t kWindowClass[] = L"TalvexUpdateStatusWindowV1";
constexpr DWORD kWindowStyle = WS_CAPTION | WS_SYSMENU | WS_MINIMIZEBOX;
constexpr int kWindowWidth = 440;
constexpr int kWindowHeight = 180;

constexpr wchar_t kMinimizeCaption[] = L"Minimize to &tray";
constexpr WORD kMinimizeButtonId = 100;

constexpr wchar_t kShowUpdateCaption[] = L"Show update";
constexpr int kShowUpdateCommand = 101;

constexpr UINT_PTR kRefreshTimerId = 1;
constexpr UINT kRefreshIntervalMs = 100;

constexpr wchar_t kMinimizedVariable[] = L"TALVEX_UPDATE_MINIMIZED";

struct DestroyMenuDeleter {
  using pointer = HMENU;
  void operator()(HMENU menu) const noexcept { DestroyMenu(menu); }
};
using OwnedMenu = std::unique_ptr<HMENU, DestroyMenuDeleter>;

enum class Activation { kKeepFocus, kTakeFocus };

bool ShouldStartMinimized() {
  wchar_t value[2] = {};  // room for one character: a longer value does not fit and is ignored
  return GetEnvironmentVariableW(kMinimizedVariable, value, 2) == 1 && value[0] == L'1';
}

// The middle of the area from the work area's top left corner to the screen's bottom right one: a taskbar on
// the left or at the top shifts the window by half its own size.
POINT WindowPosition() {
  RECT work_area{};
  SystemParametersInfoW(SPI_GETWORKAREA, 0, &work_area, 0);
  const int screen_width = GetSystemMetrics(SM_CXSCREEN);
  const int screen_height = GetSystemMetrics(SM_CYSCREEN);
  return {work_area.left + (screen_width - work_area.left - kWindowWidth) / 2,
          work_area.top + (screen_height - work_area.top - kWindowHeight) / 2};
}

// The state that only this thread uses.
class WindowThread {
 public:
  explicit WindowThread(const StatusWindowThreadStart& start) noexcept
      : shared_(start.shared), ready_(start.ready) {}

  void Run() noexcept;
  LRESULT HandleMessage(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept;

 private:
  bool CreateStatusWindow() noexcept;
  bool CreateControls() noexcept;
  void RunMessageLoop() noexcept;
  void SignalReady() noexcept;
  void Refresh() noexcept;
  bool AddTrayIcon() noexcept;
  void MinimizeToTray() noexcept;
  void RestoreFromTray(Activation activation) noexcept;
  void OpenTrayMenu() noexcept;
  void HandleTrayEvent(UINT event) noexcept;

  StatusBlock& shared_;
  HANDLE ready_;  // null once it has been signalled, because the starter then closes it
  HWND window_ = nullptr;
  HWND label_ = nullptr;
  HWND progress_bar_ = nullptr;
  UINT taskbar_created_ = 0;
  bool taskbar_created_allowed_ = false;
  bool tray_menu_open_ = false;
  TrayIcon tray_icon_;
};

LRESULT CALLBACK WindowProcedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
  if (message == WM_NCCREATE) {
    const auto* const creation = reinterpret_cast<const CREATESTRUCTW*>(lparam);
    SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(creation->lpCreateParams));
  }
  // Null for messages that a window gets before WM_NCCREATE.
  auto* const owner = reinterpret_cast<WindowThread*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  return owner == nullptr ? DefWindowProcW(window, message, wparam, lparam)
                          : owner->HandleMessage(window, message, wparam, lparam);
}

void WindowThread::Run() noexcept {
  if (CreateStatusWindow()) {
    SignalReady();
    RunMessageLoop();
  }
  if (window_ != nullptr && IsWindow(window_)) {
    DestroyWindow(window_);
  }
  tray_icon_.Remove();
  {
    const StatusLock lock(shared_);
    shared_.window = nullptr;
  }
  // Order: last, so that a starter whose window failed finds no window, and never waits forever.
  SignalReady();
}

bool WindowThread::CreateStatusWindow() noexcept {
  // Without the DLL the progress bar's class is missing, and no window is shown.
  decltype(&InitCommonControlsEx) register_classes = nullptr;
  if (FindFunction(LoadVersionedSystemLibrary(L"comctl32.dll"), "InitCommonControlsEx", register_classes)) {
    const INITCOMMONCONTROLSEX controls = {sizeof(controls), ICC_PROGRESS_CLASS};
    register_classes(&controls);
  }

  WNDCLASSEXW window_class{};
  window_class.cbSize = sizeof(window_class);
  window_class.lpfnWndProc = WindowProcedure;
  window_class.hInstance = GetModuleHandleW(nullptr);
  window_class.hIcon = LoadIconW(nullptr, IDI_APPLICATION);
  window_class.hCursor = LoadCursorW(nullptr, IDC_ARROW);
  window_class.hbrBackground = reinterpret_cast<HBRUSH>(static_cast<INT_PTR>(COLOR_WINDOW + 1));
  window_class.lpszClassName = kWindowClass;
  if (RegisterClassExW(&window_class) == 0 && GetLastError() != ERROR_CLASS_ALREADY_EXISTS) {
    return false;
  }
  taskbar_created_ = RegisterWindowMessageW(L"TaskbarCreated");

  const POINT position = WindowPosition();
  window_ =
      CreateWindowExW(WS_EX_APPWINDOW, kWindowClass, kUpdateCaption, kWindowStyle, position.x, position.y,
                      kWindowWidth, kWindowHeight, nullptr, nullptr, window_class.hInstance, this);
  if (window_ == nullptr) {
    return false;
  }
  {
    const StatusLock lock(shared_);
    shared_.window = window_;
  }
  // Explorer runs with fewer rights than an elevated helper, and its broadcast would be blocked. A message
  // that could not be registered is number 0, which any process may send.
  taskbar_created_allowed_ =
      taskbar_created_ != 0 && ChangeWindowMessageFilterEx(window_, taskbar_created_, MSGFLT_ALLOW, nullptr);

  if (!CreateControls() || SetTimer(window_, kRefreshTimerId, kRefreshIntervalMs, nullptr) == 0) {
    return false;
  }
  EnableMenuItem(GetSystemMenu(window_, FALSE), SC_CLOSE, MF_BYCOMMAND | MF_GRAYED);
  Refresh();
  if (ShouldStartMinimized()) {
    MinimizeToTray();
  } else {
    ShowWindow(window_, SW_SHOWNOACTIVATE);
  }
  return true;
}

bool WindowThread::CreateControls() noexcept {
  const HINSTANCE instance = GetModuleHandleW(nullptr);
  constexpr DWORD kChildStyle = WS_CHILD | WS_VISIBLE;
  label_ = CreateWindowExW(0, L"STATIC", L"", kChildStyle | SS_CENTER, 20, 27, 400, 25, window_, nullptr,
                           instance, nullptr);
  progress_bar_ = CreateWindowExW(0, PROGRESS_CLASSW, L"", kChildStyle | PBS_SMOOTH, 25, 72, 390, 20, window_,
                                  nullptr, instance, nullptr);
  const HWND button =
      CreateWindowExW(0, L"BUTTON", kMinimizeCaption, kChildStyle | WS_TABSTOP, 260, 105, 150, 27, window_,
                      reinterpret_cast<HMENU>(static_cast<UINT_PTR>(kMinimizeButtonId)), instance, nullptr);
  if (label_ == nullptr || progress_bar_ == nullptr || button == nullptr) {
    return false;
  }
  const auto font = reinterpret_cast<WPARAM>(GetStockObject(DEFAULT_GUI_FONT));
  SendMessageW(label_, WM_SETFONT, font, FALSE);
  SendMessageW(button, WM_SETFONT, font, FALSE);
  SendMessageW(progress_bar_, PBM_SETRANGE32, 0, kFullProgress);
  return true;
}

// Ends at WM_QUIT, and also without one once the window is gone: the icon's menu and dragging the title bar
// run message loops of their own, in which the WM_QUIT of a window destroyed there can get lost.
void WindowThread::RunMessageLoop() noexcept {
  MSG message{};
  while (IsWindow(window_) && GetMessageW(&message, nullptr, 0, 0) > 0) {
    if (!IsDialogMessageW(window_, &message)) {
      TranslateMessage(&message);
      DispatchMessageW(&message);
    }
  }
}

void WindowThread::SignalReady() noexcept {
  if (ready_ != nullptr) {
    SetEvent(std::exchange(ready_, nullptr));
  }
}

// Nothing on this thread may throw: an exception would end the process in the middle of the update. Copying
// the text is the only call here that can, and it comes before anything is marked as shown, so that the next
// tick tries again.
void WindowThread::Refresh() noexcept {
  std::wstring text;
  int progress = 0;
  try {
    const StatusLock lock(shared_);
    if (!shared_.dirty) {
      return;
    }
    text = shared_.text;
    progress = shared_.progress;
    shared_.dirty = false;
  } catch (...) {
    return;
  }
  SetWindowTextW(label_, text.c_str());
  SendMessageW(progress_bar_, PBM_SETPOS, static_cast<WPARAM>(progress), 0);
  tray_icon_.SetTip(TruncateForTooltip(text));
}

// Without "TaskbarCreated" the helper would not notice that Explorer has restarted and dropped the icon, and
// the user could not get a hidden window back: so it is not hidden at all.
bool WindowThread::AddTrayIcon() noexcept {
  if (!taskbar_created_allowed_) {
    return false;
  }
  TrayTip tip;
  {
    const StatusLock lock(shared_);
    tip = TruncateForTooltip(shared_.text);
  }
  return tray_icon_.Add(window_, tip);
}

void WindowThread::MinimizeToTray() noexcept {
  if (AddTrayIcon()) {
    SetEnvironmentVariableW(kMinimizedVariable, L"1");
    ShowWindow(window_, SW_HIDE);
  } else {
    RestoreFromTray(Activation::kKeepFocus);
  }
}

void WindowThread::RestoreFromTray(Activation activation) noexcept {
  tray_icon_.Remove();
  SetEnvironmentVariableW(kMinimizedVariable, nullptr);
  if (activation == Activation::kTakeFocus) {
    ShowWindow(window_, SW_RESTORE);
    SetForegroundWindow(window_);
  } else {
    ShowWindow(window_, SW_SHOWNOACTIVATE);
  }
}

void WindowThread::OpenTrayMenu() noexcept {
  OwnedMenu menu(CreatePopupMenu());
  if (menu == nullptr || !AppendMenuW(menu.get(), MF_STRING, kShowUpdateCommand, kShowUpdateCaption)) {
    menu.reset();
    RestoreFromTray(Activation::kTakeFocus);
    return;
  }
  POINT cursor{};
  GetCursorPos(&cursor);
  // The menu of a background window would not close when the user clicks elsewhere; the WM_NULL at the end is
  // the other half of the documented workaround.
  tray_menu_open_ = true;  // set first: the call below can deliver the second report of the same click
  SetForegroundWindow(window_);
  const BOOL command = TrackPopupMenu(menu.get(), TPM_RIGHTBUTTON | TPM_RETURNCMD | TPM_NONOTIFY, cursor.x,
                                      cursor.y, 0, window_, nullptr);
  tray_menu_open_ = false;
  menu.reset();
  if (command == kShowUpdateCommand) {
    RestoreFromTray(Activation::kTakeFocus);
  }
  PostMessageW(window_, WM_NULL, 0, 0);
}

void WindowThread::HandleTrayEvent(UINT event) noexcept {
  switch (event) {
    case NIN_SELECT:
    case NIN_KEYSELECT:
    case WM_LBUTTONUP:
    case WM_LBUTTONDBLCLK:
      RestoreFromTray(Activation::kTakeFocus);
      break;
    case WM_CONTEXTMENU:
    case WM_RBUTTONUP:
      // One right click is reported as both; the second arrives while the menu is already open.
      if (!tray_menu_open_) {
        OpenTrayMenu();
      }
      break;
    default:
      break;
  }
}

LRESULT WindowThread::HandleMessage(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept {
  if (message == taskbar_created_ && tray_icon_.IsPresent()) {
    // Explorer has restarted and dropped the icon; or only the display's scale has changed, the icon is still
    // there, and adding it again would fail.
    tray_icon_.Remove();
    if (!AddTrayIcon()) {
      RestoreFromTray(Activation::kKeepFocus);
    }
    return 0;
  }
  switch (message) {
    case WM_DESTROY:
      KillTimer(window, kRefreshTimerId);
      tray_icon_.Remove();
      PostQuitMessage(0);
      return 0;
    case WM_CLOSE:
      return 0;  // a closed window would look like a cancelled update
    case WM_COMMAND:
      if (LOWORD(wparam) == kMinimizeButtonId) {
        MinimizeToTray();
        return 0;
      }
      break;
    case WM_SYSCOMMAND:
      if ((wparam & 0xFFF0) == SC_MINIMIZE) {  // the lowest four bits are the system's own
        MinimizeToTray();
        return 0;
      }
      break;
    case WM_TIMER:
      if (wparam == kRefreshTimerId) {
        Refresh();
        return 0;
      }
      break;
    case TrayIcon::kCallbackMessage:
      HandleTrayEvent(tray_icon_.EventOf(lparam));
      return 0;
    case kStopStatusWindowMessage:
      EndMenu();  // an open menu belongs to the window and has a loop of its own
      DestroyWindow(window);
      return 0;
    default:
      break;
  }
  return DefWindowProcW(window, message, wparam, lparam);
}

}  // namespace

DWORD WINAPI RunStatusWindowThread(void* start) {
  WindowThread(*static_cast<const StatusWindowThreadStart*>(start)).Run();
  return 0;
}

}  // namespace talvex
