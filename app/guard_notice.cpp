#include "app/guard_notice.h"

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>

#include "app/reporting.h"
#include "core/exit_code.h"
#include "core/transaction_handles.h"

namespace talvex {
namespace {

constexpr int kArgumentCount = 4;

constexpr wchar_t kNoticeCaption[] = L"Talvex";
constexpr wchar_t kCodePlaceholder[] = L"%1";

// The monitor's codes and notices belong to the client: add a row for each code that has its own notice. The
// placeholder is replaced by the code. The last row, without a code, is for all others.
struct GuardText {
  std::wstring_view code;
  std::wstring_view notice;
};
constexpr GuardText kGuardTexts[] = {
    {L"", L"Talvex was closed by its security monitor with code %1."},
};

std::wstring NoticeFor(std::wstring_view code) {
  const auto* const row = std::find_if(std::begin(kGuardTexts), std::prev(std::end(kGuardTexts)),
                                       [code](const GuardText& text) { return text.code == code; });
  std::wstring notice(row->notice);
  const std::size_t position = notice.find(kCodePlaceholder);
  if (position != std::wstring::npos) {
    notice.replace(position, std::wstring_view(kCodePlaceholder).size(), code);
  }
  return notice;
}

}  // namespace

int RunGuardNotice(int argument_count, const wchar_t* const* arguments) {
  if (argument_count != kArgumentCount) {
    return kExitUsage;
  }
  const HANDLE operand = ParseHandle(arguments[3]);
  if (!IsOpenHandle(operand)) {
    return kExitFailed;
  }
  // Order: the notice after the client's exit, because it says that the client was closed.
  OwnedHandle client(operand);
  if (!WaitForClientExit(client)) {
    return kExitFailed;
  }
  ShowNotice(kNoticeCaption, NoticeFor(arguments[2]).c_str());
  return kExitDone;
}

}  // namespace talvex
