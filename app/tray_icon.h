#pragma once

// The status window's icon in the notification area.

#include <windows.h>

#include <array>
#include <string_view>

namespace talvex {

// A tooltip: 128 characters including the terminating zero. A fixed-size copy can be made under a lock, where
// nothing may fail.
using TrayTip = std::array<wchar_t, 128>;

// Truncates `text` to the size of a tooltip.
[[nodiscard]] TrayTip TruncateForTooltip(std::wstring_view text) noexcept;

// The icon, which sends kCallbackMessage to its window. Only the window's thread uses it, without a lock.
class TrayIcon {
 public:
  static constexpr UINT kCallbackMessage = WM_APP + 1;

  [[nodiscard]] bool IsPresent() const noexcept { return present_; }

  // Adds the icon for `window`; succeeds at once when it exists already.
  [[nodiscard]] bool Add(HWND window, const TrayTip& tip) noexcept;

  // Changes the tooltip, if there is an icon.
  void SetTip(const TrayTip& tip) noexcept;

  // Removes the icon, if there is one; it may already have been lost with Explorer.
  void Remove() noexcept;

  // The mouse or keyboard event that a kCallbackMessage with this last parameter reports.
  [[nodiscard]] UINT EventOf(LPARAM parameter) const noexcept;

 private:
  HWND window_ = nullptr;
  bool present_ = false;
  bool version_4_ = false;  // the icon accepted NOTIFYICON_VERSION_4
};

}  // namespace talvex
