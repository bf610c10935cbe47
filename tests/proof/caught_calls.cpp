#include <windows.h>

#include <algorithm>
#include <iterator>
#include <list>
#include <type_traits>
#include <utility>

#include "core/cng.h"
#include "tests/proof/run_in_progress.h"
#include "tests/support/import_patch.h"

namespace talvex::test {
namespace {

std::map<HANDLE, std::map<std::wstring, WIN32_FIND_DATAW>> listings;  // what is left of each

void AddArgument(ApiCall& call, const wchar_t* text) {
  if (text != nullptr) {
    call.texts.emplace_back(text);
  }
}
void AddArgument(ApiCall& call, void* handle) {
  call.handle = call.handle == nullptr ? handle : call.handle;
  if (const auto found = opened_by.find(handle); found != opened_by.end()) {
    call.texts.push_back(found->second.Path());
  }
}
void AddArgument(ApiCall& call, DWORD number) {
  call.numbers.push_back(number);
}
template <typename Other>
void AddArgument(ApiCall&, const Other&) {}

// Handles come as results or through pointers.
void NoteOpened(const ApiCall& call, void** handle) {
  if (*handle != nullptr && *handle != INVALID_HANDLE_VALUE) {
    opened_by[*handle] = call;
  }
}
template <typename Other>
void NoteOpened(const ApiCall&, const Other&) {}

// The name of a function, as a template argument.
template <std::size_t size>
struct Name {
  char text[size]{};
  // cppcheck-suppress noExplicitConstructor ; a literal becomes the argument by itself
  // NOLINTNEXTLINE(google-explicit-constructor)
  consteval Name(const char (&name)[size]) { std::copy_n(name, size, text); }
};

std::list<ImportPatch> patches;

// A caught function. On a run, `in_run` is called in its place.
template <Name api, typename Result, typename... Arguments>
struct Hook {
  using Function = Result(WINAPI*)(Arguments...);
  static inline Function original = nullptr;
  static inline Function in_run = nullptr;
  static inline std::conditional_t<std::is_void_v<Result>, int, Result> failure = {};  // what it returns then

  // For a call that is recorded and may be made to fail. One that closes a handle does so whatever it says.
  static Result WINAPI Recorded(Arguments... arguments) {
    if (!OnRun()) {
      return original(arguments...);
    }
    const DWORD last_error = GetLastError();
    in_hook = true;
    ApiCall& call = record->calls.emplace_back();
    call.name = api.text;
    call.allocations_before = record->allocations;
    (AddArgument(call, arguments), ...);
    Result result = failure;
    DWORD code = DecideAbout(call);
    if (code != ERROR_SUCCESS && ClosesHandle(call)) {
      in_run(arguments...);
    } else if (code == ERROR_SUCCESS) {
      SetLastError(last_error);
      result = in_run(arguments...);
      code = GetLastError();
      NoteOpened(call, &result);
      (NoteOpened(call, arguments), ...);
    }
    FollowUp(call);
    in_hook = false;
    SetLastError(code);
    return result;
  }

  static Result WINAPI Unrecorded(Arguments... arguments) {
    return OnRun() ? in_run(arguments...) : original(arguments...);
  }

  static void Install(Function stand_in, Function replacement) {
    original = reinterpret_cast<Function>(*FindImportSlot(api.text));
    in_run = stand_in;
    patches.emplace_back(api.text, replacement);
  }
};

template <Name api, typename Result, typename... Arguments>
void Replace(Result(WINAPI* in_run)(Arguments...)) {
  using ThisHook = Hook<api, Result, Arguments...>;
  ThisHook::Install(in_run, &ThisHook::Unrecorded);
}

template <Name api, typename Result, typename... Arguments>
void Patch(Result(WINAPI* in_run)(Arguments...), std::type_identity_t<Result> failure = {}) {
  using ThisHook = Hook<api, Result, Arguments...>;
  ThisHook::failure = failure;
  ThisHook::Install(in_run, &ThisHook::Recorded);
}

// A function of the table through which the product calls CNG.
template <Name api, typename Result, typename... Arguments>
void PatchCng(Result(WINAPI*& function)(Arguments...)) {
  using ThisHook = Hook<api, Result, Arguments...>;
  ThisHook::original = ThisHook::in_run = std::exchange(function, &ThisHook::Recorded);
  ThisHook::failure = static_cast<Result>(0xC0000001);  // STATUS_UNSUCCESSFUL
}

// What functions do on a run that would take long, leave the test's directory, or differ between systems.

BOOL WINAPI SkipFlush(HANDLE) {
  return TRUE;  // a process that dies does not need it
}

BOOL WINAPI MoveFileNow(const wchar_t* from, const wchar_t* to, DWORD flags) {
  return to == nullptr ? TRUE : MoveFileExW(from, to, flags);  // without a name: at the next restart
}

BOOL WINAPI FindNextInOrder(HANDLE search, WIN32_FIND_DATAW* entry) {
  auto& entries = listings[search];
  if (entries.empty()) {
    SetLastError(ERROR_NO_MORE_FILES);
    return FALSE;
  }
  const auto next = settings->list_backwards ? std::prev(entries.end()) : entries.begin();
  *entry = next->second;
  entries.erase(next);
  return TRUE;
}

HANDLE WINAPI FindFirstInOrder(const wchar_t* pattern, WIN32_FIND_DATAW* entry) {
  const HANDLE search = FindFirstFileW(pattern, entry);
  if (search != INVALID_HANDLE_VALUE) {
    listings[search].clear();
    do {
      listings[search][entry->cFileName] = *entry;
    } while (FindNextFileW(search, entry));
    FindNextInOrder(search, entry);
  }
  return search;
}

DWORD WINAPI GetProgramPath(HMODULE, wchar_t* path, DWORD size) {
  path[settings->program.copy(path, size - 1)] = L'\0';
  return static_cast<DWORD>(settings->program.size());
}

BOOL WINAPI StartClient(const wchar_t*, wchar_t*, SECURITY_ATTRIBUTES*, SECURITY_ATTRIBUTES*, BOOL, DWORD,
                        void*, const wchar_t*, STARTUPINFOW*, PROCESS_INFORMATION* started) {
  started->hProcess = CreateEventW(nullptr, TRUE, TRUE, nullptr);
  started->hThread = CreateEventW(nullptr, TRUE, TRUE, nullptr);
  opened_by[started->hProcess] = opened_by[started->hThread] = {"CreateProcessW"};
  record->client_started = true;
  return TRUE;
}

// The C++ runtime duplicates a thread's own handle at its first exception.
BOOL WINAPI NoteDuplicate(HANDLE from, HANDLE handle, HANDLE to, HANDLE* duplicate, DWORD access,
                          BOOL inherit, DWORD options) {
  in_hook = true;  // the next line comes here once more
  const BOOL done = DuplicateHandle(from, handle, to, duplicate, access, inherit, options);
  if (done && handle != GetCurrentThread()) {
    opened_by[*duplicate] = {"DuplicateHandle"};
  }
  // cppcheck-suppress redundantAssignment ; every hook reads it
  in_hook = false;
  return done;
}

HANDLE WINAPI StartNoThread(SECURITY_ATTRIBUTES*, SIZE_T, LPTHREAD_START_ROUTINE, void*, DWORD, DWORD*) {
  return nullptr;  // no status window
}

void WINAPI NoteSleep(DWORD sleep_ms) {
  record->waited_ms += sleep_ms <= 400 ? sleep_ms : 0;  // the longer one lets the last text be read
  pending_looks = 0;
}

int WINAPI NoteMessage(HWND, const wchar_t* text, const wchar_t*, UINT) {
  in_hook = true;
  record->message = text;
  in_hook = false;
  return IDOK;
}

DWORD WINAPI GetOneProcessId() {
  return 1000;
}

}  // namespace

void PatchImports() {
  if (!patches.empty()) {
    return;
  }
  Patch<"CreateFileW">(CreateFileW, INVALID_HANDLE_VALUE);
  Patch<"ReadFile">(ReadFile);
  Patch<"WriteFile">(WriteFile);
  Patch<"GetFileSizeEx">(GetFileSizeEx);
  Patch<"GetFileInformationByHandleEx">(GetFileInformationByHandleEx);
  Patch<"FlushFileBuffers">(SkipFlush);
  Patch<"GetFileAttributesW">(GetFileAttributesW, INVALID_FILE_ATTRIBUTES);
  Patch<"SetFileAttributesW">(SetFileAttributesW);
  Patch<"GetFullPathNameW">(GetFullPathNameW);
  Patch<"CreateDirectoryW">(CreateDirectoryW);
  Patch<"RemoveDirectoryW">(RemoveDirectoryW);
  Patch<"DeleteFileW">(DeleteFileW);
  Patch<"CopyFileW">(CopyFileW);
  Patch<"MoveFileExW">(MoveFileNow);
  Patch<"ReplaceFileW">(ReplaceFileW);
  Patch<"FindFirstFileW">(FindFirstInOrder, INVALID_HANDLE_VALUE);
  Patch<"FindNextFileW">(FindNextInOrder);
  Patch<"FindClose">(FindClose);
  Patch<"VirtualAlloc">(VirtualAlloc);
  Patch<"VirtualFree">(VirtualFree);
  Patch<"GetHandleInformation">(GetHandleInformation);
  Patch<"SetHandleInformation">(SetHandleInformation);
  Patch<"WaitForSingleObject">(WaitForSingleObject, WAIT_FAILED);
  Patch<"ReleaseMutex">(ReleaseMutex);
  Patch<"CloseHandle">(CloseHandle);
  Patch<"CreateEventW">(CreateEventW);
  Patch<"CreateMutexW">(CreateMutexW);
  Patch<"CreateProcessW">(StartClient);
  Patch<"SetEnvironmentVariableW">(SetEnvironmentVariableW);
  Patch<"InitializeProcThreadAttributeList">(InitializeProcThreadAttributeList);
  Patch<"UpdateProcThreadAttribute">(UpdateProcThreadAttribute);
  Patch<"GetModuleFileNameW">(GetProgramPath);
  CngFunctions& cng = *Cng();
  PatchCng<"BCryptOpenAlgorithmProvider">(cng.BCryptOpenAlgorithmProvider);
  PatchCng<"BCryptCloseAlgorithmProvider">(cng.BCryptCloseAlgorithmProvider);
  PatchCng<"BCryptGetProperty">(cng.BCryptGetProperty);
  PatchCng<"BCryptCreateHash">(cng.BCryptCreateHash);
  PatchCng<"BCryptHashData">(cng.BCryptHashData);
  PatchCng<"BCryptFinishHash">(cng.BCryptFinishHash);
  PatchCng<"BCryptDestroyHash">(cng.BCryptDestroyHash);
  PatchCng<"BCryptImportKeyPair">(cng.BCryptImportKeyPair);
  PatchCng<"BCryptVerifySignature">(cng.BCryptVerifySignature);
  PatchCng<"BCryptDestroyKey">(cng.BCryptDestroyKey);
  Replace<"CreateThread">(StartNoThread);
  Replace<"DuplicateHandle">(NoteDuplicate);
  Replace<"Sleep">(NoteSleep);
  Replace<"MessageBoxW">(NoteMessage);
  Replace<"GetCurrentProcessId">(GetOneProcessId);
}

}  // namespace talvex::test
