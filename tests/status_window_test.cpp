// The status window as its user meets it: real windows, driven by messages. Stand-ins take the place of what
// a test may not disturb or cannot make happen (the notification area, the focus, a choice in the icon's
// menu) and note in one word each what the window asks of them.

#include "app/status_window.h"

#include <windows.h>

#include <commctrl.h>
#include <gtest/gtest.h>
#include <shellapi.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "tests/support/import_patch.h"

namespace talvex {
namespace {

using test::AnyFunction;
using test::Failing;
using test::ImportPatch;

constexpr wchar_t kTop[] = L"TalvexUpdateStatusWindowV1";
constexpr wchar_t kLabel[] = L"STATIC";
constexpr wchar_t kBar[] = L"msctls_progress32";
constexpr wchar_t kButton[] = L"BUTTON";
constexpr UINT kTrayCallback = 32769;

const auto real_create_window = test::ImportedFunction<decltype(CreateWindowExW)>("CreateWindowExW");
const auto real_show_window = test::ImportedFunction<decltype(ShowWindow)>("ShowWindow");
std::atomic<bool> memory_is_short = false;

class StatusWindowTest : public testing::Test {
 protected:
  void SetUp() override { takes_icons = takes_version_4 = true; }

  bool StartWith(const wchar_t* variable, std::wstring_view text = L"Verifying update...") {
    asked.clear();
    SetEnvironmentVariableW(L"TALVEX_UPDATE_MINIMIZED", variable);
    return window_.StartStatusWindow(text);
  }
  // What was asked for since the last look, the state of the window, and the variable that a client inherits.
  static std::string Look() {
    char variable[8] = {};
    GetEnvironmentVariableA("TALVEX_UPDATE_MINIMIZED", variable, sizeof(variable));
    const char* const state = Top() == nullptr         ? "gone"
                              : IsIconic(Top())        ? "iconic"
                              : IsWindowVisible(Top()) ? "shown"
                                                       : "hidden";
    return std::exchange(asked, {}) + state + variable;
  }
  std::string LookAfterStart(const wchar_t* variable) {
    const bool started = StartWith(variable);
    EXPECT_EQ(started, Top() != nullptr);
    return Look();
  }
  // What a hidden window does about an event of its icon.
  std::string AnswerTo(LPARAM event) {
    EXPECT_EQ(LookAfterStart(L"1"), "add version hidden1");
    Send(kTrayCallback, 0, event);
    const std::string answer = Look();
    window_.StopStatusWindow();
    return answer;
  }

  static HWND Top() { return IsWindow(windows[kTop]) ? windows[kTop] : nullptr; }
  static LRESULT Send(UINT message, WPARAM wparam, LPARAM lparam) {
    return SendMessageW(Top(), message, wparam, lparam);
  }
  static LRESULT Bar() { return SendMessageW(windows[kBar], PBM_GETPOS, 0, 0); }
  static void PressTheButton() { SendMessageW(windows[kButton], BM_CLICK, 0, 0); }
  static std::wstring TextOf(const wchar_t* window_class) {
    wchar_t text[256] = {};
    GetWindowTextW(windows[window_class], text, 256);
    return text;
  }
  static bool WaitUntil(const std::function<bool()>& holds) {
    for (int i = 0; i < 1000 && !holds(); ++i) {
      Sleep(10);
    }
    return holds();
  }

  // The stand-ins. They run on the window's thread while the test waits for it, so nothing needs a lock.
  static BOOL Note(const char* word) { return !asked.append(word).empty(); }
  static BOOL WINAPI TakeForeground(HWND window) { return Note(window == Top() ? "foreground " : "? "); }
  static BOOL WINAPI DestroyTheMenu(HMENU) { return Note("destroyed "); }
  static BOOL WINAPI AnswerForTheShell(DWORD message, NOTIFYICONDATAW* data) {
    constexpr const char* kWords[] = {"add ", "tip ", "delete ", "focus ", "version "};  // NIM_ADD is 0
    EXPECT_TRUE(data->cbSize == sizeof(*data) && data->hWnd == Top() && data->uID == 1);
    icon[message] = *data;
    Note(kWords[message]);
    return message == NIM_ADD ? takes_icons : message != NIM_SETVERSION || takes_version_4;
  }
  // One right click is reported twice, and the second report arrives while the menu is open.
  static BOOL WINAPI ChooseTheItem(HMENU menu, UINT flags, int x, int y, int, HWND window, const RECT*) {
    Note("menu ");
    Send(kTrayCallback, 0, WM_CONTEXTMENU);
    wchar_t text[32] = {};
    GetMenuStringW(menu, 101, text, 32, MF_BYCOMMAND);
    EXPECT_TRUE(GetMenuItemCount(menu) == 1 && std::wstring_view(text) == L"Show update");
    EXPECT_TRUE(window == Top() && x == 31 && y == 17);
    return flags == (TPM_RIGHTBUTTON | TPM_RETURNCMD | TPM_NONOTIFY) ? 101 : 0;
  }
  static BOOL WINAPI PointSomewhere(POINT* cursor) {
    *cursor = {31, 17};
    return TRUE;
  }
  // Delivers nothing. With `loses_in_silence`, the first call reports success all the same.
  static BOOL WINAPI LoseTheMessage(HWND window, UINT message, WPARAM, LPARAM) {
    Note(message == WM_NULL && window == Top() ? "null " : "");
    return std::exchange(loses_in_silence, false);
  }
  static BOOL WINAPI AllowTheBroadcast(HWND, UINT message, DWORD action, CHANGEFILTERSTRUCT*) {
    return message == RegisterWindowMessageW(L"TaskbarCreated") && action == MSGFLT_ALLOW;
  }
  static UINT_PTR WINAPI RefuseTheTimer(HWND, UINT_PTR, UINT interval_ms, TIMERPROC) {
    EXPECT_EQ(interval_ms, 100u);
    return 0;
  }
  static BOOL WINAPI WorkAreaBesideBars(UINT action, UINT, void* area, UINT) {
    return action == SPI_GETWORKAREA && SetRect(static_cast<RECT*>(area), 101, 60, 700, 500);
  }
  static BOOL WINAPI ShowInTheBackground(HWND window, int how) {
    EXPECT_EQ(how, SW_SHOWNOACTIVATE);
    return real_show_window(window, how);
  }
  static HWND WINAPI CreateUnlessRefused(DWORD extended, LPCWSTR name, LPCWSTR text, DWORD style, int x,
                                         int y, int width, int height, HWND parent, HMENU menu,
                                         HINSTANCE instance, void* parameter) {
    EXPECT_EQ(parent, (style & WS_CHILD) != 0 ? windows[kTop] : nullptr);
    designs[name] = {text, extended, style, x, y, width, height, reinterpret_cast<UINT_PTR>(menu)};
    const HWND window = real_create_window(extended, name, text, style, x, y, width, height, parent, menu,
                                           instance, parameter);
    return windows[name] = name == refused_class ? nullptr : window;
  }

  // As asked for: text, extended style, style, place in the parent, size, id.
  using Design = std::tuple<std::wstring, DWORD, DWORD, int, int, int, int, UINT_PTR>;
  static inline std::map<std::wstring_view, Design> designs;
  static inline std::map<std::wstring_view, HWND> windows;  // the newest of each class
  static inline std::wstring_view refused_class;            // no window of it can be made
  static inline std::map<DWORD, NOTIFYICONDATAW> icon;      // the newest data of each NIM_ message
  static inline std::string asked;                          // a word for each call since the last look
  static inline bool takes_icons, takes_version_4, loses_in_silence;

  const ImportPatch patches_[5] = {{"Shell_NotifyIconW", &AnswerForTheShell},
                                   {"CreateWindowExW", &CreateUnlessRefused},
                                   {"SetForegroundWindow", &TakeForeground},
                                   {"DestroyMenu", &DestroyTheMenu},
                                   {"GetCursorPos", &PointSomewhere}};
  StatusWindow window_;
};

TEST_F(StatusWindowTest, LooksAsDesigned) {
  const ImportPatch work_area("SystemParametersInfoW", &WorkAreaBesideBars);
  const ImportPatch show("ShowWindow", &ShowInTheBackground);
  ASSERT_TRUE(StartWith(nullptr, L""));
  const int left = 101 + (GetSystemMetrics(SM_CXSCREEN) - 101 - 440) / 2;
  const int top = 60 + (GetSystemMetrics(SM_CYSCREEN) - 60 - 180) / 2;
  const auto font = reinterpret_cast<LRESULT>(GetStockObject(DEFAULT_GUI_FONT));
  constexpr DWORD kTopStyle = WS_CAPTION | WS_SYSMENU | WS_MINIMIZEBOX;
  constexpr DWORD kChild = WS_CHILD | WS_VISIBLE;
  EXPECT_EQ(designs[kTop], Design(L"Talvex Update", WS_EX_APPWINDOW, kTopStyle, left, top, 440, 180, 0));
  EXPECT_EQ(designs[kLabel], Design(L"", 0, kChild | SS_CENTER, 20, 27, 400, 25, 0));
  EXPECT_EQ(designs[kBar], Design(L"", 0, kChild | PBS_SMOOTH, 25, 72, 390, 20, 0));
  EXPECT_EQ(designs[kButton], Design(L"Minimize to &tray", 0, kChild | WS_TABSTOP, 260, 105, 150, 27, 100));
  for (const wchar_t* text : {kLabel, kButton}) {
    EXPECT_EQ(SendMessageW(windows[text], WM_GETFONT, 0, 0), font);
  }
  EXPECT_TRUE(GetClassLongW(Top(), GCL_HICON) != 0 && GetClassLongW(Top(), GCL_HCURSOR) != 0);
  EXPECT_EQ(GetClassLongW(Top(), GCL_HBRBACKGROUND), DWORD{COLOR_WINDOW + 1});
  EXPECT_EQ(SendMessageW(windows[kBar], PBM_GETRANGE, FALSE, 0), 1000);
}

TEST_F(StatusWindowTest, ProgressIsTruncatedToThousandths) {
  const std::tuple<std::uint64_t, std::uint64_t, int> cases[] = {
      // no bar equals the one before
      {1, 3, 333},       {5, 0, 0},           {7, 7, 1000},
      {2999, 3000, 999}, {9, 7, 1000},        {0x180000000, 0x200000000, 750},
      {1, ~0ull, 0},     {~0ull, ~0ull, 1000}};
  ASSERT_TRUE(StartWith(nullptr));
  for (const auto& [done, total, bar] : cases) {
    window_.SetStatusProgress(done, total);
    EXPECT_TRUE(WaitUntil([bar = bar] { return Bar() == bar; })) << done << " of " << total;
  }
}

TEST_F(StatusWindowTest, TheLatestTextReachesTheLabelAndTheTooltip) {
  // The label first: when it answers, its thread is done with the tooltip.
  const auto soon_shows = [](std::wstring_view text) {
    return WaitUntil([text] { return TextOf(kLabel) == text && icon[NIM_MODIFY].szTip == text; });
  };
  ASSERT_TRUE(StartWith(L"1"));
  EXPECT_EQ(TextOf(kLabel), L"Verifying update...");
  const HWND first = Top();
  EXPECT_TRUE(window_.StartStatusWindow(L"Started again"));
  EXPECT_EQ(Top(), first);
  EXPECT_TRUE(soon_shows(L"Started again"));
  window_.SetStatusText(L"Applying update...");
  EXPECT_TRUE(soon_shows(L"Applying update..."));
  window_.SetStatusText({});
  EXPECT_TRUE(soon_shows(L""));
  Sleep(300);  // some ticks with nothing new
  EXPECT_EQ(Look(), "add version tip tip tip hidden1");
}

TEST_F(StatusWindowTest, ShowsThingsLateWhenMemoryIsShort) {
  ASSERT_TRUE(StartWith(nullptr));
  memory_is_short = true;
  window_.SetStatusText(L"There is no room for this text.");
  window_.SetStatusProgress(1, 2);
  Sleep(300);  // some ticks at which the window cannot copy the text
  const LRESULT bar = Bar();
  memory_is_short = false;
  EXPECT_EQ(bar, 0);
  EXPECT_TRUE(WaitUntil([] { return Bar() == 500; }));
  EXPECT_EQ(TextOf(kLabel), L"Verifying update...");
}

TEST_F(StatusWindowTest, OnlyTheValue1StartsHidden) {
  const std::pair<const wchar_t*, const char*> cases[] = {
      {L"1", "add version hidden1"}, {L"11", "shown11"}, {L"0", "shown0"}, {L"", "shown"}};
  for (const auto& [value, looks] : cases) {
    EXPECT_EQ(LookAfterStart(value), looks);
    window_.StopStatusWindow();
  }
  EXPECT_EQ(Look(), "gone");
}

TEST_F(StatusWindowTest, TheUserCannotCloseIt) {
  ASSERT_TRUE(StartWith(nullptr));
  Send(WM_CLOSE, 0, 0);
  Send(WM_SYSCOMMAND, SC_CLOSE, 0);
  Send(WM_COMMAND, IDCANCEL, 0);  // the Escape key
  EXPECT_EQ(Look(), "shown");
  EXPECT_TRUE(GetMenuState(GetSystemMenu(Top(), FALSE), SC_CLOSE, MF_BYCOMMAND) & MF_GRAYED);
}

TEST_F(StatusWindowTest, HidesInTheNotificationAreaAndComesBack) {
  const std::function<void()> ways_to_hide[] = {
      PressTheButton, [] { Send(WM_SYSCOMMAND, SC_MINIMIZE | 2, 0); },
      [] { PostMessageW(Top(), WM_SYSCHAR, L't', 1 << 29); }};  // the button's key, seen by IsDialogMessageW
  ASSERT_TRUE(StartWith(nullptr, std::wstring(200, L'x')));
  for (const auto& hide : ways_to_hide) {
    hide();
    ASSERT_TRUE(WaitUntil([] { return !IsWindowVisible(Top()); }));
    EXPECT_EQ(Look(), "add version hidden1");
    PressTheButton();
    EXPECT_EQ(Look(), "hidden1");
    Send(kTrayCallback, 0, NIN_SELECT);
    EXPECT_EQ(Look(), "delete foreground shown");
  }
  const NOTIFYICONDATAW& added = icon[NIM_ADD];
  EXPECT_EQ(added.uFlags, UINT{NIF_MESSAGE | NIF_ICON | NIF_TIP | NIF_SHOWTIP});
  EXPECT_TRUE(added.uCallbackMessage == kTrayCallback && added.hIcon != nullptr);
  EXPECT_EQ(added.szTip, std::wstring(127, L'x'));
  EXPECT_EQ(icon[NIM_SETVERSION].uVersion, UINT{NOTIFYICON_VERSION_4});
}

TEST_F(StatusWindowTest, EventsOfTheIconAreReadInItsVersion) {
  constexpr LPARAM kId = 0x10000;  // what version 4 reports beside the event
  for (const LPARAM event : {NIN_SELECT, NIN_KEYSELECT, WM_LBUTTONUP, WM_LBUTTONDBLCLK}) {
    EXPECT_EQ(AnswerTo(kId | event), "delete foreground shown") << event;
  }
  EXPECT_EQ(AnswerTo(kId | WM_MOUSEMOVE), "hidden1");
  EXPECT_EQ(Look(), "delete gone1");  // stopped; the client inherits the variable
  takes_version_4 = false;
  EXPECT_EQ(AnswerTo(WM_LBUTTONUP), "delete foreground shown");
  EXPECT_EQ(AnswerTo(kId | WM_LBUTTONUP), "hidden1");
}

TEST_F(StatusWindowTest, TheMenuOfTheIconRestoresAndCanBeDismissed) {
  const std::tuple<const char*, AnyFunction, const char*> cases[] = {
      {"TrackPopupMenu", reinterpret_cast<AnyFunction>(&ChooseTheItem),
       "foreground menu destroyed delete foreground null shown"},
      {"CreatePopupMenu", Failing(&CreatePopupMenu), "delete foreground shown"},
      {"AppendMenuW", Failing(&AppendMenuW), "destroyed delete foreground shown"}};
  const ImportPatch post("PostMessageW", &LoseTheMessage);
  for (const auto& [import, replacement, answer] : cases) {
    const ImportPatch patch(import, replacement);
    EXPECT_EQ(AnswerTo(WM_CONTEXTMENU), answer);
  }
  const ImportPatch dismissed("TrackPopupMenu", Failing(&TrackPopupMenu));
  EXPECT_EQ(LookAfterStart(L"1"), "add version hidden1");
  for (const LPARAM event : {WM_CONTEXTMENU, WM_RBUTTONUP}) {
    Send(kTrayCallback, 0, event);
    EXPECT_EQ(Look(), "foreground destroyed null hidden1");
  }
}

TEST_F(StatusWindowTest, AnIconLostWithTheTaskbarIsAddedAgain) {
  const ImportPatch filter("ChangeWindowMessageFilterEx", &AllowTheBroadcast);
  const UINT taskbar_created = RegisterWindowMessageW(L"TaskbarCreated");
  ASSERT_TRUE(StartWith(L"1"));
  Send(taskbar_created, 0, 0);
  EXPECT_EQ(Look(), "add version delete add version hidden1");
  takes_icons = false;
  Send(taskbar_created, 0, 0);
  EXPECT_EQ(Look(), "delete add shown");
  Send(taskbar_created, 0, 0);  // no icon, nothing lost
  EXPECT_EQ(Look(), "shown");
}

TEST_F(StatusWindowTest, StopsWhileTheMenuOfItsIconIsOpen) {
  ASSERT_TRUE(StartWith(L"1"));
  PostMessageW(Top(), kTrayCallback, 0, WM_CONTEXTMENU);
  ASSERT_TRUE(WaitUntil([] { return FindWindowW(L"#32768", nullptr) != nullptr; }));  // the class of menus
  window_.StopStatusWindow();
  EXPECT_EQ(Top(), nullptr);
}

TEST_F(StatusWindowTest, StopsWhenItsMessagesGetLost) {
  ASSERT_TRUE(StartWith(nullptr));
  loses_in_silence = true;
  const ImportPatch post("PostMessageW", &LoseTheMessage);
  window_.StopStatusWindow();
  EXPECT_EQ(Top(), nullptr);
}

TEST_F(StatusWindowTest, StaysShownOrIsDoneWithoutWhenACallFails) {
  const std::tuple<const char*, AnyFunction, const char*> calls[] = {
      {"ChangeWindowMessageFilterEx", Failing(&ChangeWindowMessageFilterEx), "shown"},
      {"RegisterWindowMessageW", Failing(&RegisterWindowMessageW), "shown"},
      {"CreateEventW", Failing(&CreateEventW), "gone1"},
      {"CreateThread", Failing(&CreateThread), "gone1"},
      {"RegisterClassExW", Failing(&RegisterClassExW), "gone1"},
      {"SetTimer", reinterpret_cast<AnyFunction>(&RefuseTheTimer), "gone1"}};
  for (const auto& [import, replacement, looks] : calls) {
    const ImportPatch patch(import, replacement);
    EXPECT_EQ(LookAfterStart(L"1"), looks) << import;
    window_.SetStatusText(L"Applying update...");
    window_.SetStatusProgress(1, 2);
    window_.StopStatusWindow();
  }
  for (const wchar_t* name : {kTop, kLabel, kBar, kButton}) {
    refused_class = name;
    EXPECT_EQ(LookAfterStart(L"1"), "gone1") << TextOf(name);
  }
  refused_class = {};
  EXPECT_EQ(LookAfterStart(nullptr), "shown");
}

}  // namespace
}  // namespace talvex

void* operator new(std::size_t size) {
  void* const memory = talvex::memory_is_short ? nullptr : HeapAlloc(GetProcessHeap(), 0, size);
  return memory == nullptr ? throw std::bad_alloc() : memory;
}
void operator delete(void* memory) noexcept {
  HeapFree(GetProcessHeap(), 0, memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  HeapFree(GetProcessHeap(), 0, memory);
}
