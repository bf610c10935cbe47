#include "app/tray_icon.h"

#include <windows.h>

#include <shellapi.h>

#include <algorithm>

namespace talvex {
namespace {

constexpr UINT kIconId = 1;

NOTIFYICONDATAW Describe(HWND window) {
  NOTIFYICONDATAW data{};
  data.cbSize = sizeof(data);
  data.hWnd = window;
  data.uID = kIconId;
  return data;
}

// Version 4 shows no standard tooltip without NIF_SHOWTIP.
void PutTip(NOTIFYICONDATAW& data, const TrayTip& tip) {
  static_assert(sizeof(data.szTip) == sizeof(tip));
  data.uFlags |= NIF_TIP | NIF_SHOWTIP;
  std::copy(tip.begin(), tip.end(), data.szTip);
}

}  // namespace

TrayTip TruncateForTooltip(std::wstring_view text) noexcept {
  TrayTip tip{};
  text.copy(tip.data(), tip.size() - 1);
  return tip;
}

bool TrayIcon::Add(HWND window, const TrayTip& tip) noexcept {
  if (present_) {
    return true;
  }
  NOTIFYICONDATAW data = Describe(window);
  data.uFlags = NIF_MESSAGE | NIF_ICON;
  data.uCallbackMessage = kCallbackMessage;
  data.hIcon = LoadIconW(nullptr, IDI_APPLICATION);
  PutTip(data, tip);
  if (!Shell_NotifyIconW(NIM_ADD, &data)) {
    return false;
  }
  window_ = window;
  present_ = true;
  data.uVersion = NOTIFYICON_VERSION_4;
  version_4_ = Shell_NotifyIconW(NIM_SETVERSION, &data) != FALSE;
  return true;
}

void TrayIcon::SetTip(const TrayTip& tip) noexcept {
  if (present_) {
    NOTIFYICONDATAW data = Describe(window_);
    PutTip(data, tip);
    Shell_NotifyIconW(NIM_MODIFY, &data);
  }
}

void TrayIcon::Remove() noexcept {
  if (present_) {
    NOTIFYICONDATAW data = Describe(window_);
    Shell_NotifyIconW(NIM_DELETE, &data);
    present_ = false;
    version_4_ = false;
  }
}

UINT TrayIcon::EventOf(LPARAM parameter) const noexcept {
  return version_4_ ? LOWORD(parameter) : static_cast<UINT>(parameter);
}

}  // namespace talvex
