// The DLL that an attacker would put beside a program, under the name of one of Windows' own. A program that
// loads it ends at once, with exit code 99.

#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID) {
  return TerminateProcess(GetCurrentProcess(), 99);
}
