// A client that does nothing but report how it was started: to the file named by TALVEX_TEST_REPORT.

#include <windows.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

std::string Variable(const char* name) {
  char text[512] = {};
  return std::string(text, GetEnvironmentVariableA(name, text, sizeof(text)));
}

HANDLE HandleFrom(const std::string& text) {
  return reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(std::strtoul(text.c_str(), nullptr, 10)));
}

}  // namespace

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR, int) {
  const HANDLE lock = HandleFrom(Variable("TALVEX_UPDATE_HEALTH_LOCK_HANDLE"));
  const DWORD wait = WaitForSingleObject(lock, 10'000);
  // A handle that was not handed over has another meaning here, or none; the test looks whether it was set.
  SetEvent(HandleFrom(Variable("TALVEX_TEST_STRAY_EVENT")));
  char folder[MAX_PATH] = {};
  GetCurrentDirectoryA(MAX_PATH, folder);
  std::ofstream(Variable("TALVEX_TEST_REPORT") + ".new", std::ios::binary)
      << "manifest=" << Variable("TALVEX_UPDATE_RELAUNCHED_MANIFEST") << "\nlock=" << wait
      << "\nfolder=" << folder << "\ncommand=" << GetCommandLineA() << "\n";
  ReleaseMutex(lock);
  MoveFileA((Variable("TALVEX_TEST_REPORT") + ".new").c_str(), Variable("TALVEX_TEST_REPORT").c_str());
  return 0;
}
