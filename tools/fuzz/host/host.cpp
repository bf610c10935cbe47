#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/regular_file.h"
#include "core/sha256.h"
#include "core/whole_file.h"
#include "storage/client_root.h"

// Strict UTF-8 to UTF-16: the shortest form only, no surrogates, nothing above U+10FFFF, nothing cut off.
int MultiByteToWideChar(UINT, DWORD, const char* text, int length, wchar_t* wide, int room) {
  std::vector<wchar_t> units;
  for (int i = 0; i < length;) {
    const auto lead = static_cast<unsigned char>(text[i++]);
    const int more = lead < 0x80 ? 0 : lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
    if ((lead >= 0x80 && lead < 0xC2) || lead > 0xF4 || i + more > length) {
      return 0;
    }
    std::uint32_t point = more == 0 ? lead : lead & (0x3Fu >> more);
    for (int k = 0; k < more; ++k, ++i) {
      if ((text[i] & 0xC0) != 0x80) {
        return 0;
      }
      point = point << 6 | (text[i] & 0x3F);
    }
    if ((more == 2 && point < 0x800) || (more == 3 && (point < 0x10000 || point > 0x10FFFF)) ||
        (point >= 0xD800 && point < 0xE000)) {
      return 0;
    }
    if (point >= 0x10000) {
      units.push_back(static_cast<wchar_t>(0xD800 + ((point - 0x10000) >> 10)));
      point = 0xDC00 + (point & 0x3FF);
    }
    units.push_back(static_cast<wchar_t>(point));
  }
  const int count = static_cast<int>(units.size());
  if (wide != nullptr && room >= count) {
    std::copy(units.begin(), units.end(), wide);
  }
  return count;
}

// Digests and numbers are all that the formats convert to UTF-8.
int WideCharToMultiByte(UINT, DWORD, const wchar_t* wide, int length, char* text, int room, const char*,
                        BOOL*) {
  for (int i = 0; i < length; ++i) {
    if (wide[i] >= 0x80) {
      std::abort();
    }
    if (i < room) {
      text[i] = static_cast<char>(wide[i]);
    }
  }
  return length;
}

DWORD FormatMessageW(DWORD, const void*, DWORD, DWORD, wchar_t*, DWORD, void*) {
  std::abort();
}
BOOL CloseHandle(HANDLE) {
  std::abort();
}
BOOL GetHandleInformation(HANDLE, DWORD*) {
  std::abort();
}
DWORD GetCurrentProcessId() {
  std::abort();
}
DWORD GetLastError() {
  std::abort();
}
BOOL ReleaseMutex(HANDLE) {
  std::abort();
}
void SetLastError(DWORD) {
  std::abort();
}
DWORD WaitForSingleObject(HANDLE, DWORD) {
  std::abort();
}

namespace talvex {

PathKind ProbePath(const std::wstring&) {
  std::abort();
}

bool Sha256OfBuffer(std::span<const std::byte>, Sha256Digest& digest, UpdateError&) {
  digest = {};  // no parser looks at it
  return true;
}

std::wstring JoinPath(std::wstring_view, std::wstring_view) {
  std::abort();
}
bool ReadWholeFile(const std::wstring&, std::uint32_t, ByteBuffer&, UpdateError&) {
  std::abort();
}
bool ReplaceWholeFile(const std::wstring&, const std::wstring&, std::span<const std::byte>, std::wstring_view,
                      MoveFailureText, UpdateError&) {
  std::abort();
}

}  // namespace talvex
