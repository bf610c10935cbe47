// The DLL that an attacker would put beside a program, under the name of one of Windows' own. Being loaded,
// it leaves a file "<its own path>.loaded".

#include <windows.h>

#include <string>

BOOL WINAPI DllMain(HINSTANCE self, DWORD reason, LPVOID) {
  wchar_t path[MAX_PATH] = L"";
  if (reason == DLL_PROCESS_ATTACH && GetModuleFileNameW(self, path, MAX_PATH) != 0) {
    const std::wstring marker = std::wstring(path) + L".loaded";
    CloseHandle(CreateFileW(marker.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                            nullptr));
  }
  return TRUE;
}
