// The baseline for memory and start-up: a program that shows a window, lets it draw and exits. With an
// argument it exits at once.

#include <windows.h>

#include <shellapi.h>

int WINAPI WinMain(HINSTANCE instance, HINSTANCE, LPSTR command_line, int) {
  if (*command_line != '\0') {
    return 0;
  }
  WNDCLASSW window_class{};
  window_class.lpfnWndProc = DefWindowProcW;
  window_class.hInstance = instance;
  window_class.lpszClassName = L"TalvexEmptyWindow";
  RegisterClassW(&window_class);
  const HWND window = CreateWindowExW(0, window_class.lpszClassName, L"Empty", WS_CAPTION | WS_VISIBLE, 100,
                                      100, 440, 180, nullptr, nullptr, instance, nullptr);
  UpdateWindow(window);
  Sleep(300);  // long enough to be measured
  DestroyWindow(window);
  return 0;
}
