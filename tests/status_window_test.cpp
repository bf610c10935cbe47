#include "app/status_window.h"

#include <windows.h>

#include <commctrl.h>
#include <gtest/gtest.h>
#include <shellapi.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/import_patch.h"
#include "tests/support/memory_shortage.h"
#include "tests/support/open_handles.h"

namespace talvex {
namespace {

using test::Failing;
using test::ImportPatch;
using Messages = std::vector<DWORD>;

constexpr wchar_t kVariable[] = L"TALVEX_UPDATE_MINIMIZED";
constexpr UINT kTrayCallback = 32769;

// Stands in for the notification area: keeps what it is asked, and answers as the test wants.
struct Shell {
  std::mutex mutex;
  std::vector<std::pair<DWORD, NOTIFYICONDATAW>> calls;
  bool takes_icons = true;
  bool takes_version_4 = true;

  Messages Asked() {
    const std::lock_guard lock(mutex);
    Messages messages;
    for (const auto& call : calls) {
      messages.push_back(call.first);
    }
    return messages;
  }
  std::wstring Tip() {
    const std::lock_guard lock(mutex);
    return calls.back().second.szTip;
  }
} shell;

BOOL WINAPI AnswerForTheShell(DWORD message, NOTIFYICONDATAW* data) {
  const std::lock_guard lock(shell.mutex);
  shell.calls.emplace_back(message, *data);
  return message == NIM_ADD ? shell.takes_icons : message != NIM_SETVERSION || shell.takes_version_4;
}

const wchar_t* refused_class = nullptr;
HWND WINAPI RefuseOneClass(DWORD extended, LPCWSTR name, LPCWSTR text, DWORD style, int x, int y, int width,
                           int height, HWND parent, HMENU menu, HINSTANCE instance, void* parameter) {
  static const auto real = reinterpret_cast<decltype(&CreateWindowExW)>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"user32"), "CreateWindowExW")));
  return lstrcmpW(name, refused_class) == 0
             ? nullptr
             : real(extended, name, text, style, x, y, width, height, parent, menu, instance, parameter);
}

// One right click is reported twice, and the second report arrives while the menu is open.
BOOL WINAPI ChooseTheItem(HMENU menu, UINT flags, int, int, int, HWND window, const RECT*) {
  static bool open = false;
  EXPECT_FALSE(std::exchange(open, true));
  SendMessageW(window, kTrayCallback, 0, WM_CONTEXTMENU);
  open = false;
  wchar_t text[32] = {};
  GetMenuStringW(menu, 101, text, 32, MF_BYCOMMAND);
  const bool is_the_menu = GetMenuItemCount(menu) == 1 && std::wstring_view(text) == L"Show update";
  return is_the_menu && flags == (TPM_RIGHTBUTTON | TPM_RETURNCMD | TPM_NONOTIFY) ? 101 : 0;
}

BOOL WINAPI WorkAreaBesideBars(UINT, UINT, void* area, UINT) {
  *static_cast<RECT*>(area) = {101, 60, 700, 500};
  return TRUE;
}

bool WaitUntil(const std::function<bool()>& holds) {
  for (int i = 0; i < 1000 && !holds(); ++i) {
    Sleep(10);
  }
  return holds();
}

struct WindowSearch {
  const wchar_t* name = nullptr;
  HWND found = nullptr;
};
BOOL CALLBACK Compare(HWND window, LPARAM parameter) {
  auto& search = *reinterpret_cast<WindowSearch*>(parameter);
  wchar_t name[64] = {};
  DWORD process = 0;
  GetClassNameW(window, name, 64);
  GetWindowThreadProcessId(window, &process);
  search.found = process == GetCurrentProcessId() && lstrcmpW(name, search.name) == 0 ? window : nullptr;
  return search.found == nullptr;
}

// The top-level window of this class in this process; other tests run beside it. FindWindowExW would lose its
// place in the list when one of their windows goes.
HWND OwnWindow(const wchar_t* name) {
  WindowSearch search = {name};
  EnumWindows(&Compare, reinterpret_cast<LPARAM>(&search));
  return search.found;
}

HWND Top() {
  return OwnWindow(L"TalvexUpdateStatusWindowV1");
}
HWND Child(const wchar_t* name) {
  return FindWindowExW(Top(), nullptr, name, nullptr);
}
LRESULT Bar() {
  return SendMessageW(Child(L"msctls_progress32"), PBM_GETPOS, 0, 0);
}
std::wstring TextOf(HWND window) {
  wchar_t text[256] = {};
  GetWindowTextW(window, text, 256);
  return text;
}
void PressTheButton() {
  SendMessageW(Child(L"BUTTON"), BM_CLICK, 0, 0);
}
void TrayEvent(LPARAM event) {
  SendMessageW(Top(), kTrayCallback, 0, event);
}

// Either shown without the variable, or hidden with it; never minimised to the taskbar.
void ExpectShown(bool shown) {
  wchar_t value[8] = {};
  GetEnvironmentVariableW(kVariable, value, 8);
  EXPECT_EQ(std::wstring_view(value), shown ? L"" : L"1");
  EXPECT_EQ(IsWindowVisible(Top()) != FALSE, shown);
  EXPECT_FALSE(IsIconic(Top()));
}

class StatusWindowTest : public testing::Test {
 protected:
  void SetUp() override {
    SetEnvironmentVariableW(kVariable, nullptr);
    shell.calls.clear();
    shell.takes_icons = shell.takes_version_4 = true;
  }
  void StartWith(const wchar_t* variable) {
    SetEnvironmentVariableW(kVariable, variable);
    ASSERT_TRUE(window_.StartStatusWindow(L"Verifying update..."));
  }

  ImportPatch shell_patch_{"Shell_NotifyIconW", &AnswerForTheShell};
  StatusWindow window_;
};

TEST_F(StatusWindowTest, LooksAsDesigned) {
  const ImportPatch work_area("SystemParametersInfoW", &WorkAreaBesideBars);
  ASSERT_TRUE(window_.StartStatusWindow(L""));
  RECT top{};
  GetWindowRect(Top(), &top);
  EXPECT_EQ(top.left, 101 + (GetSystemMetrics(SM_CXSCREEN) - 101 - 440) / 2);
  EXPECT_EQ(top.top, 60 + (GetSystemMetrics(SM_CYSCREEN) - 60 - 180) / 2);
  EXPECT_EQ(top.right - top.left, 440);
  EXPECT_EQ(top.bottom - top.top, 180);
  EXPECT_EQ(TextOf(Top()), L"Talvex Update");
  EXPECT_EQ(GetWindowLongW(Top(), GWL_STYLE) & ~WS_CLIPSIBLINGS,
            WS_CAPTION | WS_SYSMENU | WS_MINIMIZEBOX | WS_VISIBLE);
  EXPECT_TRUE(GetWindowLongW(Top(), GWL_EXSTYLE) & WS_EX_APPWINDOW);
  EXPECT_NE(GetForegroundWindow(), Top());
  EXPECT_EQ(SendMessageW(Child(L"msctls_progress32"), PBM_GETRANGE, FALSE, 0), 1000);

  const struct {
    const wchar_t* name;
    const wchar_t* text;
    int id;
    RECT place;
    LONG style;
  } children[] = {{L"STATIC", L"", 0, {20, 27, 420, 52}, SS_CENTER},
                  {L"msctls_progress32", L"", 0, {25, 72, 415, 92}, PBS_SMOOTH},
                  {L"BUTTON", L"Minimize to &tray", 100, {260, 105, 410, 132}, WS_TABSTOP}};
  for (const auto& child : children) {
    const HWND window = Child(child.name);
    RECT place{};
    GetWindowRect(window, &place);
    MapWindowPoints(nullptr, Top(), reinterpret_cast<POINT*>(&place), 2);
    EXPECT_TRUE(EqualRect(&place, &child.place) && TextOf(window) == child.text &&
                GetDlgCtrlID(window) == child.id && IsWindowVisible(window) &&
                (GetWindowLongW(window, GWL_STYLE) & child.style) == child.style)
        << "control " << &child - children;
  }
}

TEST_F(StatusWindowTest, ProgressIsTruncatedToThousandths) {
  const struct {
    std::uint64_t done, total;
    int bar;
  } cases[] = {{5, 0, 0},     {7, 7, 1000},        {9, 7, 1000},
               {1, 3, 333},   {2999, 3000, 999},   {0x180000000, 0x200000000, 750},
               {1, ~0ull, 0}, {~0ull, ~0ull, 1000}};
  ASSERT_TRUE(window_.StartStatusWindow(L""));
  for (const auto& [done, total, bar] : cases) {
    window_.SetStatusProgress(77, 100);
    ASSERT_TRUE(WaitUntil([] { return Bar() == 770; }));
    window_.SetStatusProgress(done, total);
    EXPECT_TRUE(WaitUntil([bar = bar] { return Bar() == bar; }))
        << done << " of " << total << " gave " << Bar();
  }
}

TEST_F(StatusWindowTest, TheLatestTextReachesTheLabelAndTheTooltip) {
  window_.SetStatusText(L"Before the start");
  StartWith(L"1");
  EXPECT_EQ(TextOf(Child(L"STATIC")), L"Verifying update...");
  const HWND first = Top();
  EXPECT_TRUE(window_.StartStatusWindow(L"Started again"));
  EXPECT_EQ(Top(), first);
  for (const wchar_t* text : {L"Started again", L"Applying update...", L""}) {
    EXPECT_TRUE(WaitUntil([&] { return TextOf(Child(L"STATIC")) == text && shell.Tip() == text; }));
    window_.SetStatusText(*text == L'S' ? L"Applying update..." : nullptr);
  }
}

TEST_F(StatusWindowTest, OnlyTheValue1StartsHidden) {
  for (const wchar_t* value : {L"1", L"11", L"0", L""}) {
    StartWith(value);
    EXPECT_EQ(IsWindowVisible(Top()) != FALSE, std::wstring_view(value) != L"1");
    window_.StopStatusWindow();
  }
}

TEST_F(StatusWindowTest, TheUserCannotCloseIt) {
  StartWith(nullptr);
  SendMessageW(Top(), WM_CLOSE, 0, 0);
  SendMessageW(Top(), WM_SYSCOMMAND, SC_CLOSE, 0);
  SendMessageW(Top(), WM_SYSKEYDOWN, VK_F4, 1 << 29);
  SendMessageW(Top(), WM_NULL, 0, 0);
  EXPECT_TRUE(IsWindowVisible(Top()));
  EXPECT_TRUE(GetMenuState(GetSystemMenu(Top(), FALSE), SC_CLOSE, MF_BYCOMMAND) & MF_GRAYED);
}

TEST_F(StatusWindowTest, HidesInTheNotificationAreaAndComesBack) {
  const std::function<void()> ways_to_hide[] = {
      PressTheButton, [] { SendMessageW(Top(), WM_SYSCOMMAND, SC_MINIMIZE | 2, 0); },
      [] { PostMessageW(Top(), WM_SYSCHAR, L't', 1 << 29); }};  // the button's key, seen by IsDialogMessageW
  ASSERT_TRUE(window_.StartStatusWindow(std::wstring(200, L'x')));
  for (const auto& hide : ways_to_hide) {
    hide();
    ASSERT_TRUE(WaitUntil([] { return !IsWindowVisible(Top()); }));
    ExpectShown(false);
    const NOTIFYICONDATAW icon = shell.calls[0].second;
    EXPECT_EQ(icon.uFlags, UINT{NIF_MESSAGE | NIF_ICON | NIF_TIP | NIF_SHOWTIP});
    EXPECT_TRUE(icon.uID == 1 && icon.uCallbackMessage == kTrayCallback && icon.hIcon != nullptr);
    EXPECT_EQ(icon.szTip, std::wstring(127, L'x'));
    EXPECT_EQ(shell.calls[1].second.uVersion, UINT{NOTIFYICON_VERSION_4});
    TrayEvent(NIN_SELECT);
    ExpectShown(true);
    EXPECT_EQ(shell.Asked(), (Messages{NIM_ADD, NIM_SETVERSION, NIM_DELETE}));
    shell.calls.clear();
  }
}

TEST_F(StatusWindowTest, EventsOfTheIconAreReadInItsVersion) {
  constexpr LPARAM kIdOfVersion4 = 0x10000;
  const struct {
    bool version_4;
    LPARAM event;
    bool restores;
  } cases[] = {{true, kIdOfVersion4 | NIN_SELECT, true},    {true, kIdOfVersion4 | NIN_KEYSELECT, true},
               {true, kIdOfVersion4 | WM_LBUTTONUP, true},  {true, kIdOfVersion4 | WM_LBUTTONDBLCLK, true},
               {true, kIdOfVersion4 | WM_RBUTTONUP, true},  {true, kIdOfVersion4 | WM_CONTEXTMENU, true},
               {true, kIdOfVersion4 | WM_MOUSEMOVE, false}, {false, WM_LBUTTONUP, true},
               {false, kIdOfVersion4 | WM_LBUTTONUP, false}};
  const ImportPatch menu("TrackPopupMenu", &ChooseTheItem);
  for (const auto& [version_4, event, restores] : cases) {
    shell.takes_version_4 = version_4;
    StartWith(L"1");
    TrayEvent(event);
    SCOPED_TRACE(event);
    ExpectShown(restores);
    window_.StopStatusWindow();
    EXPECT_EQ(shell.Asked().back(), DWORD{NIM_DELETE});
    EXPECT_EQ(GetEnvironmentVariableW(kVariable, nullptr, 0) == 0, restores);  // the client inherits it
  }
  const std::pair<const char*, test::AnyFunction> without_menu[] = {
      {"CreatePopupMenu", Failing(&CreatePopupMenu)}, {"AppendMenuW", Failing(&AppendMenuW)}};
  for (const auto& [import, replacement] : without_menu) {
    const ImportPatch patch(import, replacement);
    StartWith(L"1");
    TrayEvent(WM_CONTEXTMENU);
    ExpectShown(true);
    window_.StopStatusWindow();
  }
}

TEST_F(StatusWindowTest, StaysShownWhenNothingCouldBringItBack) {
  const std::pair<const char*, test::AnyFunction> cases[] = {
      {"ChangeWindowMessageFilterEx", Failing(&ChangeWindowMessageFilterEx)},
      {"RegisterWindowMessageW", Failing(&RegisterWindowMessageW)},
      {"Shell_NotifyIconW", Failing(&Shell_NotifyIconW)}};
  for (const auto& [import, replacement] : cases) {
    SCOPED_TRACE(import);
    const ImportPatch patch(import, replacement);
    StartWith(L"1");
    ExpectShown(true);
    SetEnvironmentVariableW(kVariable, L"1");
    PressTheButton();
    ExpectShown(true);
    window_.StopStatusWindow();
    EXPECT_EQ(shell.Asked(), Messages{});
  }
}

TEST_F(StatusWindowTest, AnIconLostWithTheTaskbarIsAddedAgain) {
  const UINT taskbar_created = RegisterWindowMessageW(L"TaskbarCreated");
  StartWith(L"1");
  SendMessageW(Top(), taskbar_created, 0, 0);
  EXPECT_EQ(shell.Asked(), (Messages{NIM_ADD, NIM_SETVERSION, NIM_DELETE, NIM_ADD, NIM_SETVERSION}));
  ExpectShown(false);
  shell.takes_icons = false;
  SendMessageW(Top(), taskbar_created, 0, 0);
  ExpectShown(true);
  SendMessageW(Top(), taskbar_created, 0, 0);  // no icon, nothing lost
  EXPECT_EQ(shell.Asked().size(), 7u);
}

TEST_F(StatusWindowTest, StopsWhileTheMenuOfItsIconIsOpen) {
  StartWith(L"1");
  PostMessageW(Top(), kTrayCallback, 0, WM_CONTEXTMENU);
  ASSERT_TRUE(WaitUntil([] { return OwnWindow(L"#32768") != nullptr; }));
  window_.StopStatusWindow();
  EXPECT_EQ(Top(), nullptr);
  EXPECT_EQ(OwnWindow(L"#32768"), nullptr);
}

TEST_F(StatusWindowTest, AWindowThatCannotBeMadeIsDoneWithout) {
  const struct {
    const char* import;
    test::AnyFunction replacement;
    const wchar_t* refused;
  } cases[] = {{"CreateEventW", Failing(&CreateEventW), nullptr},
               {"CreateThread", Failing(&CreateThread), nullptr},
               {"RegisterClassExW", Failing(&RegisterClassExW), nullptr},
               {"SetTimer", Failing(&SetTimer), nullptr},
               {"CreateWindowExW", nullptr, L"TalvexUpdateStatusWindowV1"},
               {"CreateWindowExW", nullptr, L"STATIC"},
               {"CreateWindowExW", nullptr, L"msctls_progress32"},
               {"CreateWindowExW", nullptr, L"BUTTON"}};
  for (const auto& [import, replacement, refused] : cases) {
    refused_class = refused;
    {
      const ImportPatch patch(import, replacement == nullptr
                                          ? reinterpret_cast<test::AnyFunction>(&RefuseOneClass)
                                          : replacement);
      EXPECT_FALSE(window_.StartStatusWindow(L"Verifying update...")) << import;
      EXPECT_EQ(Top(), nullptr);
      window_.SetStatusText(L"Applying update...");
      window_.SetStatusProgress(1, 2);
    }
    EXPECT_TRUE(window_.StartStatusWindow(L"") && Top() != nullptr);
    window_.StopStatusWindow();
  }
}

TEST_F(StatusWindowTest, FiftyStartsAndStopsLeakNoHandle) {
  window_.StopStatusWindow();  // never started
  std::size_t before = 0;
  for (int i = 0; i < 52; ++i) {
    ASSERT_TRUE(window_.StartStatusWindow(L""));
    window_.StopStatusWindow();
    window_.StopStatusWindow();
    ASSERT_EQ(Top(), nullptr);
    before = i == 1 ? test::CountOpenHandles() : before;
  }
  EXPECT_LT(test::CountOpenHandles(), before + 25);  // Windows opens some for itself
}

// Something outside ends the thread; the update does not notice, and the window can be started anew.
TEST_F(StatusWindowTest, OutlivesTheEndOfItsThread) {
  StartWith(nullptr);
  PostThreadMessageW(GetWindowThreadProcessId(Top(), nullptr), WM_QUIT, 0, 0);
  ASSERT_TRUE(WaitUntil([&] { return Top() == nullptr; }));
  window_.SetStatusText(L"Applying update...");
  window_.StopStatusWindow();
  EXPECT_TRUE(window_.StartStatusWindow(L""));
}

TEST_F(StatusWindowTest, ShowsThingsLateWhenMemoryIsShort) {
  LRESULT bar = -1;
  StartWith(nullptr);
  {
    const test::MemoryShortage shortage;
    window_.SetStatusText(L"There is no room for this text.");
    window_.SetStatusProgress(1, 2);
    Sleep(300);  // some ticks at which the window cannot copy the text
    bar = Bar();
  }
  EXPECT_EQ(bar, 0);
  EXPECT_TRUE(WaitUntil([] { return Bar() == 500; }));
  EXPECT_EQ(TextOf(Child(L"STATIC")), L"Verifying update...");
}

}  // namespace
}  // namespace talvex
