// Talvex.exe [LOG_FILE [RELEASE_DIR]]: a game client without the game. The folder stands for the server.
#include <windows.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <talvex_update.h>
#include "trusted_keys.h"

std::filesystem::path g_log;

void TALVEX_CALL Log(void*, const wchar_t* line) {
  std::wofstream(g_log, std::ios::app | std::ios::binary) << line << L"\n";
}
std::string ReadFile(const std::filesystem::path& path) {
  return {std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {}};
}
// A window with the progress as its title.
int32_t TALVEX_CALL ShowProgress(void*, int32_t phase, uint64_t done, uint64_t total) {
  static const HWND window = CreateWindowExW(0, L"STATIC", L"", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 0, 0, 320,
                                             64, nullptr, nullptr, nullptr, nullptr);
  const std::wstring percent = std::to_wstring(total == 0 ? 100 : done * 100 / total);
  SetWindowTextW(window, ((phase == TALVEX_PHASE_SETTLE ? L"Checking " : L"Updating ") + percent).c_str());
  return 1;  // 0 cancels
}
// Can this release start? Here start.cfg decides, in a game it loads its engine and draws a frame.
int32_t TALVEX_CALL TryToStart(void*) {
  const std::string script = ReadFile("start.cfg");
  if (script.starts_with("start=die")) {
    TerminateProcess(GetCurrentProcess(), 99);
  }
  return !script.starts_with("start=crash");
}
int Fail(talvex_client* client) {
  wchar_t sentence[512];
  talvex_last_error(client, sentence, 512);
  Log(nullptr, (std::wstring(L"ERROR: ") + sentence).c_str());
  return 1;
}
// Exit codes: 0 done, 1 failed, 3 a helper was started to install a release, 4 to restore the previous one.
int Update(talvex_client* client, const std::filesystem::path& server) {
  const std::string text = ReadFile(server / "manifest.txt");
  const std::string sig = ReadFile(server / "manifest.sig");
  talvex_file file = {sizeof(file), 0, 0, {}, {}, {}};
  talvex_result result = talvex_check(client, text.data(), text.size(), sig.data(), sig.size(), nullptr);
  while (result <= TALVEX_DONE && (result = talvex_next_file(client, &file)) == TALVEX_OK) {
    CopyFileW((server / "files" / file.path).c_str(), file.destination, FALSE);  // or on from file.present
  }
  result = result == TALVEX_DONE ? talvex_stage(client) : result;
  result = result == TALVEX_OK ? talvex_install(client, g_log.c_str()) : result;
  return result == TALVEX_OK ? 3 : result == TALVEX_DONE ? 0 : Fail(client);
}

int WINAPI wWinMain(HINSTANCE, HINSTANCE, LPWSTR, int) {
  const talvex_key key = {kTrustedKey, sizeof(kTrustedKey)};
  talvex_options options = {sizeof(options), 1, &key, nullptr, 0, nullptr, Log, ShowProgress, TryToStart};
  talvex_client* client = nullptr;
  talvex_release release = {sizeof(release), 0, L"", L""};
  int32_t start = 0;
  wchar_t kept[MAX_PATH] = L"";
  const talvex_result opened = talvex_open(&options, &client);
  // A client that was started again by the helper gets the arguments of the one that was updated.
  g_log = talvex_arguments(client, kept, MAX_PATH) == TALVEX_OK ? kept : __argc > 1 ? __wargv[1] : L"NUL";
  if (opened != TALVEX_OK || talvex_settle(client, &start) != TALVEX_OK) {
    return Fail(client);  // a game that may not be updated here plays on (TALVEX_E_NOT_WRITABLE)
  }
  if (start == TALVEX_START_EXIT) {
    return 4;
  }
  int result = start == TALVEX_START_REPAIR ? Fail(client) : 0;
  if (start == TALVEX_START_GAME) {
    talvex_confirm(client);  // once the first frame is on the screen
    talvex_installed(client, &release);
    Log(nullptr, (std::wstring(L"running ") + release.name).c_str());
  }
  result = __argc > 2 ? Update(client, __wargv[2]) : result;
  talvex_close(client);
  return result;
}
