#pragma once

// The status window's icon in the notification area.

#include <windows.h>

#include <array>
#include <string_view>

namespace talvex {

// What a tooltip holds: 128 characters, of which the last is its closing zero. A copy of fixed size can be
// taken under a lock, where nothing may fail.
using TrayTip = std::array<wchar_t, 128>;

// Cuts `text` to what fits a tooltip.
[[nodiscard]] TrayTip CutToTip(std::wstring_view text) noexcept;

// The icon, which sends kCallbackMessage to its window. The window's thread alone uses it, without a lock.
class TrayIcon {
 public:
  static constexpr UINT kCallbackMessage = WM_APP + 1;

  [[nodiscard]] bool IsPresent() const noexcept { return present_; }

  // Adds the icon for `window`; succeeds at once when it is there already.
  [[nodiscard]] bool Add(HWND window, const TrayTip& tip) noexcept;

  // Changes the tooltip, if there is an icon.
  void SetTip(const TrayTip& tip) noexcept;

  // Takes the icon away, if there is one; it may have been lost with Explorer by then.
  void Remove() noexcept;

  // The mouse or keyboard event that a kCallbackMessage with this last parameter reports.
  [[nodiscard]] UINT EventOf(LPARAM parameter) const noexcept;

 private:
  HWND window_ = nullptr;
  bool present_ = false;
  bool version_4_ = false;  // the icon accepted NOTIFYICON_VERSION_4
};

}  // namespace talvex
