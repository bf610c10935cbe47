// What the helper says on the console and in message boxes, and when it tells the user that the client was
// closed. Stand-ins for the Windows calls keep what they are given.

#include "app/reporting.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "app/guard_notice.h"
#include "core/owned_handle.h"
#include "tests/support/import_patch.h"

namespace talvex {
namespace {

using test::ImportPatch;

class ReportingTest : public testing::Test {
 protected:
  using Box = std::tuple<HWND, std::wstring, std::wstring, UINT>;  // owner, text, caption, flags

  static int RunGuard(const std::wstring& handle) {
    const wchar_t* const arguments[] = {L"helper", L"--guard-error", L"G-17", handle.c_str()};
    return RunGuardNotice(4, arguments);
  }

  static int WINAPI KeepTheBox(HWND owner, LPCWSTR text, LPCWSTR caption, UINT flags) {
    boxes.emplace_back(owner, text, caption, flags);
    return IDOK;
  }
  static BOOL WINAPI Attach(DWORD process_id) {
    attached = process_id == ATTACH_PARENT_PROCESS;
    return attached;
  }
  static HANDLE WINAPI FindOutput(DWORD which) {
    // cppcheck-suppress knownConditionTrueFalse ; Attach sets it
    return attached && which == STD_OUTPUT_HANDLE ? standard_output : nullptr;
  }
  static BOOL WINAPI KeepTheBytes(HANDLE file, const void* bytes, DWORD size, DWORD* written, OVERLAPPED*) {
    EXPECT_EQ(file, standard_output);
    printed.append(static_cast<const char*>(bytes), *written = size);
    return TRUE;
  }
  static DWORD WINAPI PretendToWait(HANDLE, DWORD milliseconds) {
    return milliseconds == 300'000 ? wait_result : WAIT_FAILED;
  }

  static inline std::vector<Box> boxes;
  static inline std::string printed;
  static inline HANDLE standard_output = nullptr;  // what there is once the parent's console is attached
  static inline bool attached = false;
  static inline DWORD wait_result = WAIT_OBJECT_0;

  const ImportPatch patches_[4] = {{"MessageBoxW", &KeepTheBox},
                                   {"AttachConsole", &Attach},
                                   {"GetStdHandle", &FindOutput},
                                   {"WriteFile", &KeepTheBytes}};
};

TEST_F(ReportingTest, ConsoleLinesAreUtf8WithCrLfWhereThereIsAnOutput) {
  for (const std::intptr_t output : {1234, 0, -1}) {  // null and INVALID_HANDLE_VALUE are none
    attached = false;
    standard_output = reinterpret_cast<HANDLE>(output);
    WriteConsoleLine(L"a\\\u00E9\U0001F600\nb");
    WriteConsoleLine(L"lone \xD800 surrogate");
    EXPECT_EQ(std::exchange(printed, {}), output == 1234 ? "a\\\xC3\xA9\xF0\x9F\x98\x80\nb\r\n" : "");
  }
}

TEST_F(ReportingTest, FailuresAndNoticesAreBoxesUnlessTheSwitchTurnsThemIntoLines) {
  standard_output = reinterpret_cast<HANDLE>(std::intptr_t{1234});
  for (const bool lines : {true, false}) {
    console_reporting = lines;
    ShowUpdateFailure(L"The update failed.");
    ShowUpdateFailure(L"");
    ShowNotice(L"Caption", L"Restored.");
    EXPECT_EQ(std::exchange(printed, {}), lines ? "ERROR: The update failed.\r\nERROR: \r\n" : "");
    EXPECT_EQ(boxes.empty(), lines);
  }
  EXPECT_EQ(std::exchange(boxes, {}),
            (std::vector<Box>{{nullptr, L"The update failed.", L"Talvex Update", 0x10010},
                              {nullptr, L"The update failed. Your existing files were restored.",
                               L"Talvex Update", 0x10010},
                              {nullptr, L"Restored.", L"Caption", 0x10030}}));
}

TEST_F(ReportingTest, TheGuardNoticeNamesTheCodeOnceTheClientIsGone) {
  const ImportPatch wait("WaitForSingleObject", &PretendToWait);
  for (const DWORD result : {DWORD{WAIT_OBJECT_0}, DWORD{WAIT_TIMEOUT}, WAIT_FAILED}) {
    wait_result = result;
    const HANDLE client = CreateEventW(nullptr, TRUE, FALSE, nullptr);  // the mode takes it over
    EXPECT_EQ(RunGuard(std::to_wstring(reinterpret_cast<std::uintptr_t>(client))), result != WAIT_OBJECT_0);
    DWORD flags = 0;
    EXPECT_FALSE(GetHandleInformation(client, &flags));
  }
  EXPECT_EQ(std::exchange(boxes, {}),
            (std::vector<Box>{{nullptr, L"Talvex was closed by its security monitor with code G-17.",
                               L"Talvex", 0x10030}}));
}

TEST_F(ReportingTest, TheGuardNoticeRefusesUnusableHandles) {
  const OwnedHandle open(CreateEventW(nullptr, TRUE, TRUE, nullptr));
  const auto value = reinterpret_cast<std::uintptr_t>(open.Get());
  for (const std::wstring& handle : {std::to_wstring(value) + L"a", std::wstring(L"0"),
                                     std::wstring(L"2147483644"), std::to_wstring(0x100000000 + value)}) {
    EXPECT_EQ(RunGuard(handle), 1) << testing::PrintToString(handle);
  }
  EXPECT_TRUE(boxes.empty());
}

}  // namespace
}  // namespace talvex
