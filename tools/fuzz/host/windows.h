#pragma once

// The little of Windows that the parsers' sources name, so that they compile unchanged for the host, where
// the fuzzer runs. wchar_t has 32 bits there; the units in it are those of UTF-16 all the same. The two
// conversions are real, and everything that would leave the process is missing on purpose: a parser that
// reached for it would end the run.

#include <cstdint>

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

int MultiByteToWideChar(UINT page, DWORD flags, const char* text, int length, wchar_t* wide, int room);
int WideCharToMultiByte(UINT page, DWORD flags, const wchar_t* wide, int length, char* text, int room,
                        const char* replacement, BOOL* replaced);

DWORD FormatMessageW(DWORD flags, const void* source, DWORD code, DWORD language, wchar_t* text, DWORD room,
                     void* arguments);
BOOL CloseHandle(HANDLE handle);
BOOL GetHandleInformation(HANDLE handle, DWORD* flags);
DWORD GetCurrentProcessId();
DWORD GetLastError();
BOOL ReleaseMutex(HANDLE mutex);
void SetLastError(DWORD code);
DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);
