#include "app/reporting.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "app/guard_notice.h"
#include "core/owned_handle.h"
#include "tests/support/import_patch.h"

namespace talvex {
namespace {

using test::ImportPatch;

struct Box {
  HWND owner;
  std::wstring text;
  std::wstring caption;
  UINT flags;
  bool operator==(const Box&) const = default;
};
std::vector<Box> boxes;

int WINAPI KeepTheBox(HWND owner, LPCWSTR text, LPCWSTR caption, UINT flags) {
  boxes.push_back({owner, text, caption, flags});
  return IDOK;
}

DWORD waited_ms = 0;
DWORD wait_result = WAIT_OBJECT_0;
DWORD WINAPI PretendToWait(HANDLE, DWORD milliseconds) {
  waited_ms = milliseconds;
  return wait_result;
}

int writes = 0;
BOOL WINAPI CountTheWrite(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*) {
  ++writes;
  return FALSE;
}

class ReportingTest : public testing::Test {
 protected:
  void SetUp() override { boxes.clear(); }
  void TearDown() override { console_reporting = false; }

  // What `speak` writes to standard output.
  template <typename Speak>
  static std::string Heard(Speak speak) {
    HANDLE read_end = nullptr;
    HANDLE write_end = nullptr;
    CreatePipe(&read_end, &write_end, nullptr, 0);
    const OwnedHandle reader(read_end);
    OwnedHandle writer(write_end);
    const HANDLE before = GetStdHandle(STD_OUTPUT_HANDLE);
    SetStdHandle(STD_OUTPUT_HANDLE, writer.Get());
    speak();
    SetStdHandle(STD_OUTPUT_HANDLE, before);
    writer.Reset();
    char bytes[256] = {};
    DWORD read = 0;
    ReadFile(reader.Get(), bytes, sizeof(bytes), &read, nullptr);
    return std::string(bytes, read);
  }

  ImportPatch box_patch_{"MessageBoxW", &KeepTheBox};
};

TEST_F(ReportingTest, ConsoleLinesAreUtf8WithCrLf) {
  EXPECT_EQ(Heard([] { WriteConsoleLine(L"OK: a\\\u00E9\U0001F600.txt"); }),
            "OK: a\\\xC3\xA9\xF0\x9F\x98\x80.txt\r\n");
  EXPECT_EQ(Heard([] { WriteConsoleLine(L"two\nlines"); }), "two\nlines\r\n");
  EXPECT_EQ(Heard([] { WriteConsoleLine(L"lone \xD800 surrogate"); }), "");
}

TEST_F(ReportingTest, WithoutStandardOutputNothingIsWritten) {
  const HANDLE before = GetStdHandle(STD_OUTPUT_HANDLE);
  for (const HANDLE nowhere : {HANDLE{nullptr}, INVALID_HANDLE_VALUE}) {
    SetStdHandle(STD_OUTPUT_HANDLE, nowhere);
    const ImportPatch write("WriteFile", &CountTheWrite);
    WriteConsoleLine(L"unheard");
  }
  SetStdHandle(STD_OUTPUT_HANDLE, before);
  EXPECT_EQ(writes, 0);
}

TEST_F(ReportingTest, FailuresAndNoticesAreBoxes) {
  EXPECT_EQ(Heard([] {
              ShowUpdateFailure(L"The update failed.");
              ShowUpdateFailure(L"");
              ShowNotice(L"Talvex Update", L"Restored.");
            }),
            "");
  EXPECT_EQ(boxes, (std::vector<Box>{{nullptr, L"The update failed.", L"Talvex Update", 0x10010},
                                     {nullptr, L"The update failed. Your existing files were restored.",
                                      L"Talvex Update", 0x10010},
                                     {nullptr, L"Restored.", L"Talvex Update", 0x10030}}));
}

TEST_F(ReportingTest, TheSwitchTurnsBoxesIntoLines) {
  console_reporting = true;
  EXPECT_EQ(Heard([] {
              ShowUpdateFailure(L"The update failed.");
              ShowNotice(L"Talvex Update", L"Restored.");
            }),
            "ERROR: The update failed.\r\n");
  EXPECT_TRUE(boxes.empty());
}

TEST_F(ReportingTest, TheGuardNoticeNamesTheCodeOnceTheClientIsGone) {
  const ImportPatch wait("WaitForSingleObject", &PretendToWait);
  for (const DWORD result : {WAIT_OBJECT_0, static_cast<DWORD>(WAIT_TIMEOUT), WAIT_FAILED}) {
    wait_result = result;
    OwnedHandle client(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const HANDLE handle = client.Release();
    const std::wstring operand = std::to_wstring(reinterpret_cast<std::uintptr_t>(handle));
    const wchar_t* const arguments[] = {L"helper", L"--guard-error", L"G-17", operand.c_str(), L"more"};
    EXPECT_EQ(RunGuardNotice(3, arguments), 2);
    EXPECT_EQ(RunGuardNotice(5, arguments), 2);
    EXPECT_EQ(RunGuardNotice(4, arguments), result == WAIT_OBJECT_0 ? 0 : 1);
    EXPECT_EQ(waited_ms, 300'000u);
    DWORD flags = 0;
    EXPECT_FALSE(GetHandleInformation(handle, &flags));
  }
  EXPECT_EQ(boxes, (std::vector<Box>{{nullptr, L"Talvex was closed by its security monitor with code G-17.",
                                      L"Talvex", 0x10030}}));
}

TEST_F(ReportingTest, TheGuardNoticeRefusesUnusableHandles) {
  const OwnedHandle open(CreateEventW(nullptr, TRUE, TRUE, nullptr));
  const auto value = reinterpret_cast<std::uintptr_t>(open.Get());
  const std::wstring beyond_32_bits = std::to_wstring(0x100000000 + value);
  for (const wchar_t* operand : {L"", L"0", L"-5", L"12a", L"2147483644", beyond_32_bits.c_str()}) {
    const wchar_t* const arguments[] = {L"helper", L"--guard-error", L"17", operand};
    EXPECT_EQ(RunGuardNotice(4, arguments), 1) << testing::PrintToString(std::wstring(operand));
  }
  EXPECT_TRUE(boxes.empty());
}

}  // namespace
}  // namespace talvex
