// DemoHands.exe: the player's hands and eyes in tools/demo.sh.
//
//   DemoHands.exe press-ok       waits for a message box of the updater, prints its text and presses OK
//   DemoHands.exe hold FILE      waits for the status window, holds FILE open as a virus scanner would until
//                                the update reaches it, prints "held" and releases it about a second later
//
// Exit codes: 0 done; 1 no window within a minute, or FILE cannot be held; 2 the command line is neither.

#include <windows.h>
// Need windows.h first.
#include <commctrl.h>
#include <shellapi.h>

#include <array>
#include <string>
#include <string_view>

#include "core/local_memory.h"
#include "core/owned_handle.h"
#include "core/text_encoding.h"

namespace {

constexpr DWORD kPollMs = 50;
constexpr int kMaxPolls = 60'000 / kPollMs;
// The helper retries for about two seconds: this is long enough for a picture and short enough to succeed
// afterwards.
constexpr DWORD kHoldMs = 900;
// A progress bar that stands still for this many polls is waiting for the held file.
constexpr int kStandstillPolls = 3;

constexpr int kMessageBoxTextId = 0xFFFF;

void PrintLine(std::wstring_view line) {
  const std::string text = talvex::WideToUtf8(line) + "\n";
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

std::wstring TextOf(HWND window) {
  std::array<wchar_t, 1'024> text{};
  // Not GetWindowText, which cannot read controls of other processes.
  SendMessageW(window, WM_GETTEXT, text.size(), reinterpret_cast<LPARAM>(text.data()));
  return text.data();
}

// Waits until `find` returns a window.
template <typename Find>
HWND WaitForWindow(Find find) {
  for (int i = 0; i < kMaxPolls; ++i) {
    if (const HWND window = find()) {
      return window;
    }
    Sleep(kPollMs);
  }
  return nullptr;
}

int PressOk() {
  const HWND box = WaitForWindow([] {
    const HWND found = FindWindowW(L"#32770", L"Talvex Update");
    // While it is being created, it has no text yet.
    return found != nullptr && IsWindowVisible(found) ? found : nullptr;
  });
  if (box == nullptr) {
    return 1;
  }
  PrintLine(TextOf(GetDlgItem(box, kMessageBoxTextId)));
  PostMessageW(box, WM_COMMAND, IDOK, 0);
  return 0;
}

int HoldFile(const wchar_t* path) {
  const HWND window = WaitForWindow([] { return FindWindowW(L"TalvexUpdateStatusWindowV1", nullptr); });
  const talvex::OwnedHandle file(
      CreateFileW(path, GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (window == nullptr || !file.IsValid()) {
    return 1;
  }
  LRESULT last_position = -1;
  int still = 0;
  for (int i = 0; i < kMaxPolls && still < kStandstillPolls; ++i) {
    const LRESULT position =
        SendMessageW(FindWindowExW(window, nullptr, PROGRESS_CLASSW, nullptr), PBM_GETPOS, 0, 0);
    const bool applies = TextOf(FindWindowExW(window, nullptr, L"STATIC", nullptr)) == L"Applying update...";
    still = applies && position == last_position ? still + 1 : 0;
    last_position = position;
    Sleep(kPollMs);
  }
  PrintLine(L"held");
  Sleep(kHoldMs);
  return 0;
}

}  // namespace

int main() {
  int count = 0;
  const talvex::ArgumentVector words(CommandLineToArgvW(GetCommandLineW(), &count));
  if (words != nullptr && count == 2 && words[1] == std::wstring_view(L"press-ok")) {
    return PressOk();
  }
  if (words != nullptr && count == 3 && words[1] == std::wstring_view(L"hold")) {
    return HoldFile(words[2]);
  }
  return 2;
}
