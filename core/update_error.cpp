#include "core/update_error.h"

#include <array>

namespace talvex {
namespace {

constexpr wchar_t kUnknownCode[] = L"Windows error ";

}  // namespace

void SetError(UpdateError& error, std::wstring_view message) {
  error.message_.assign(message);
}

void SetWindowsError(UpdateError& error, const wchar_t* prefix, DWORD code) {
  std::array<wchar_t, 512> buffer{};
  const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                      code, 0, buffer.data(), static_cast<DWORD>(buffer.size()), nullptr);
  std::wstring_view text(buffer.data(), length);
  while (!text.empty() && (text.back() == L'\r' || text.back() == L'\n')) {
    text.remove_suffix(1);
  }

  std::wstring message(prefix);
  message += L": ";
  if (text.empty()) {
    message += kUnknownCode;
    message += std::to_wstring(code);
  } else {
    message += text;
  }
  SetError(error, message);
}

bool Refuse(UpdateError& error, const wchar_t* message) {
  SetError(error, message);
  return false;
}

bool Refuse(UpdateError& error, const std::wstring& message) {
  SetError(error, message);
  return false;
}

bool RefuseWithWindowsError(UpdateError& error, const wchar_t* prefix, DWORD code) {
  SetWindowsError(error, prefix, code);
  return false;
}

bool RefuseUnlessExplained(UpdateError& error, const wchar_t* message) {
  if (error.IsEmpty()) {
    SetError(error, message);
  }
  return false;
}

}  // namespace talvex
