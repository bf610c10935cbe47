#pragma once

// The little of Windows that the parsers' sources name, so that they compile unchanged for the host, where
// the fuzzer runs. Everything that would leave the process is declared and missing on purpose
// (tools/fuzz.sh): a parser that reached for it would end the run.

#include <cstdint>
#include <cstdlib>

using BOOL = int;
using DWORD = std::uint32_t;
using UINT = unsigned;
using HANDLE = void*;

inline const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~std::uintptr_t{0});
inline constexpr UINT CP_UTF8 = 65001;
inline constexpr DWORD MB_ERR_INVALID_CHARS = 8;
inline constexpr DWORD WC_ERR_INVALID_CHARS = 128;
inline constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x1000;
inline constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x0200;
inline constexpr DWORD WAIT_OBJECT_0 = 0;
inline constexpr DWORD WAIT_ABANDONED = 128;

// Paths that passed the rules, digests and messages are all that is converted, and all of it is ASCII.
template <typename From, typename To>
int ConvertAscii(const From* text, int length, To* converted, int room) {
  for (int i = 0; i < length; ++i) {
    if (static_cast<std::uint32_t>(text[i]) >= 0x80) {
      std::abort();
    }
    if (i < room) {
      converted[i] = static_cast<To>(text[i]);
    }
  }
  return length;
}
inline int MultiByteToWideChar(UINT, DWORD, const char* text, int length, wchar_t* wide, int room) {
  return ConvertAscii(text, length, wide, room);
}
inline int WideCharToMultiByte(UINT, DWORD, const wchar_t* wide, int length, char* text, int room,
                               const char*, BOOL*) {
  return ConvertAscii(wide, length, text, room);
}

DWORD FormatMessageW(DWORD flags, const void* source, DWORD code, DWORD language, wchar_t* text, DWORD room,
                     void* arguments);
BOOL CloseHandle(HANDLE handle);
BOOL GetHandleInformation(HANDLE handle, DWORD* flags);
DWORD GetCurrentProcessId();
DWORD GetLastError();
BOOL ReleaseMutex(HANDLE mutex);
void SetLastError(DWORD code);
DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);
