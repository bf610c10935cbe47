#include "tests/proof/fault_injection.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iterator>
#include <list>
#include <map>
#include <new>
#include <type_traits>
#include <utility>

#include "core/cng.h"
#include "core/text_encoding.h"
#include "tests/support/import_patch.h"

namespace talvex::test {
namespace {

// The run in progress.
std::atomic<DWORD> run_thread = 0;  // the thread whose calls count; 0: none
bool in_hook = false;               // what the run's thread does now is the test's own
FaultPoint fault;
std::wstring pending_path;  // of a deleted file that somebody still has open
int pending_looks = 0;      // at it, that are still refused
const RunSettings* settings = nullptr;
RunRecord* record = nullptr;
std::map<void*, ApiCall> opened_by;
std::map<HANDLE, std::map<std::wstring, WIN32_FIND_DATAW>> listings;  // what is left of each

bool OnRun() {
  return run_thread != 0 && run_thread == GetCurrentThreadId() && !in_hook;
}

void CountAllocation() {
  if (OnRun() && record->allocations++ == fault.index && fault.fault == Fault::kOutOfMemory) {
    throw std::bad_alloc();
  }
}

[[noreturn]] void Die() {
  if (settings->die_for_good) {
    TerminateProcess(GetCurrentProcess(), kDeathExitCode);
  }
  run_thread = 0;
  ExitThread(kDeathExitCode);
}

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

bool ClosesHandle(const ApiCall& call) {
  constexpr std::string_view kNames[] = {"CloseHandle",      "FindClose",
                                         "VirtualFree",      "BCryptDestroyHash",
                                         "BCryptDestroyKey", "BCryptCloseAlgorithmProvider"};
  return std::ranges::find(kNames, call.name) != std::end(kNames);
}

bool ChangesFiles(const ApiCall& call) {
  constexpr std::string_view kNames[] = {"WriteFile", "CreateDirectoryW", "RemoveDirectoryW", "DeleteFileW",
                                         "CopyFileW", "MoveFileExW",      "ReplaceFileW"};
  return (call.name == "CreateFileW" && call.numbers[2] != OPEN_EXISTING) ||
         std::ranges::find(kNames, call.name) != std::end(kNames);
}

// Whether the call meets the name of a deleted file, or the directory that it is still in.
bool MeetsPendingFile(const ApiCall& call) {
  if (pending_looks == 0 || ClosesHandle(call)) {
    return false;
  }
  const bool meets = call.name == "RemoveDirectoryW"
                         ? pending_path.starts_with(call.texts[0] + L"\\")
                         : std::ranges::find(call.texts, pending_path) != call.texts.end();
  pending_looks -= meets ? 1 : 0;
  return meets;
}

bool IsToFail(const ApiCall& call) {
  const ApiCall* const first = record->calls.size() > fault.index ? &record->calls[fault.index] : nullptr;
  return first != nullptr && ((fault.fault == Fault::kFailFromHere && call.name == first->name) ||
                              (fault.fault == Fault::kFail && fault.times > 0 && call.DoesTheSameAs(*first)));
}

bool IsAtFault(Fault kind) {
  return fault.fault == kind && record->calls.size() == fault.index + 1;
}

// The code with which the call fails, or ERROR_SUCCESS when it is to be made.
DWORD DecideAbout(ApiCall& call) {
  if (IsAtFault(Fault::kDieBefore)) {
    Die();
  }
  if (MeetsPendingFile(call)) {
    return call.name == "RemoveDirectoryW" ? DWORD{ERROR_DIR_NOT_EMPTY} : DWORD{ERROR_ACCESS_DENIED};
  }
  if (!IsToFail(call)) {
    return ERROR_SUCCESS;
  }
  --fault.times;
  call.made_to_fail = true;
  // With a backup name given, both files keep their names after 1175 and 1176; after 1177 the replaced file
  // has the backup's name already, and nothing has its own.
  if (call.name == "ReplaceFileW" && fault.code == ERROR_UNABLE_TO_MOVE_REPLACEMENT_2) {
    MoveFileExW(call.texts[0].c_str(), call.texts[2].c_str(), 0);
  }
  if (fault.code != 0) {
    return fault.code;
  }
  if (fault.fault == Fault::kFailFromHere && fault.index % 2 == 0) {
    return ERROR_SHARING_VIOLATION;
  }
  return call.name == "FindFirstFileW" ? DWORD{ERROR_FILE_NOT_FOUND} : DWORD{ERROR_DISK_FULL};
}

void NoteFlushState(const ApiCall& call) {
  if (call.made_to_fail) {
    return;
  }
  if (call.name == "WriteFile" || call.name == "ReplaceFileW") {
    record->unflushed.insert(call.texts[0]);
  } else if (call.name == "CopyFileW") {
    record->unflushed.insert(call.texts[1]);
  } else if (call.name == "FlushFileBuffers") {
    record->unflushed.erase(call.texts[0]);
  }
}

void FollowUp(const ApiCall& call) {
  NoteFlushState(call);
  if (ClosesHandle(call) && opened_by.erase(call.handle) == 0) {
    record->violations += "closed what is not open: " + std::string(call.name) + "\n";
  }
  if (IsAtFault(Fault::kDieInside)) {
    std::filesystem::resize_file(call.texts[1], std::filesystem::file_size(call.texts[1]) / 2);
    Die();
  }
  if (IsAtFault(Fault::kDeletePending)) {
    pending_path = call.texts[0];
    pending_looks = 2;
  }
  if (ChangesFiles(call)) {
    record->violations += settings->after_change(*record);
  }
  if (IsAtFault(Fault::kDieAfter)) {
    Die();
  }
}

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
    ApiCall& call = record->calls.emplace_back(ApiCall{api.text, record->allocations});
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

// Wine takes two milliseconds for the number of the volume, which nobody asks for.
BOOL WINAPI GetShortFileInformation(HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
  FILE_BASIC_INFO basic{};
  FILE_STANDARD_INFO standard{};
  const BOOL told = GetFileInformationByHandleEx(file, FileBasicInfo, &basic, sizeof(basic)) &&
                    GetFileInformationByHandleEx(file, FileStandardInfo, &standard, sizeof(standard));
  information->dwFileAttributes = basic.FileAttributes;
  information->nNumberOfLinks = standard.NumberOfLinks;
  return told;
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

// Every call of the product that touches a file, a handle, a mutex, a process or a hash. The patches stay for
// the rest of the program; calls outside a run go straight through.
void PatchImports() {
  if (!patches.empty()) {
    return;
  }
  Patch<"CreateFileW">(CreateFileW, INVALID_HANDLE_VALUE);
  Patch<"ReadFile">(ReadFile);
  Patch<"WriteFile">(WriteFile);
  Patch<"GetFileSizeEx">(GetFileSizeEx);
  Patch<"GetFileInformationByHandle">(GetShortFileInformation);
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

DWORD WINAPI RunOnThread(void* transaction) {
  // Here, because Visual Studio's library has a handler for each thread.
  std::set_terminate([] { run_thread == GetCurrentThreadId() ? Die() : std::abort(); });
  run_thread = GetCurrentThreadId();
  try {
    const int exit_code = (*static_cast<const std::function<int()>*>(transaction))();
    run_thread = 0;
    return static_cast<DWORD>(exit_code);
  } catch (const std::bad_alloc&) {
    Die();  // nobody else would catch it
  }
}

// What Windows does when a process ends. (The memory that a dead run leaves, a few kilobytes, is left to it.)
void CloseLeftOver(const std::vector<HANDLE>& handed_over) {
  for (const auto& [handle, opening] : std::exchange(opened_by, {})) {
    if (!record->died && std::ranges::find(handed_over, handle) == handed_over.end()) {
      record->violations +=
          "left open: " + std::string(opening.name) + " " + WideToUtf8(opening.Path()) + "\n";
    }
    if (opening.name == "FindFirstFileW") {
      FindClose(handle);
    } else if (opening.name == "VirtualAlloc") {
      VirtualFree(handle, 0, MEM_RELEASE);
    } else if (!opening.name.starts_with("BCrypt")) {
      CloseHandle(handle);
    }
  }
}

}  // namespace

RunRecord RunWithFault(const std::function<int()>& transaction, const FaultPoint& point,
                       const RunSettings& with) {
  PatchImports();
  RunRecord result;
  fault = point;
  pending_looks = 0;
  settings = &with;
  record = &result;
  in_hook = false;
  for (const HANDLE handle : with.handed_over) {
    opened_by[handle] = {};
  }
  auto* const run = const_cast<std::function<int()>*>(&transaction);
  const HANDLE thread = CreateThread(nullptr, 0, RunOnThread, run, 0, nullptr);
  WaitForSingleObject(thread, INFINITE);
  DWORD exit_code = 0;
  GetExitCodeThread(thread, &exit_code);
  CloseHandle(thread);
  result.died = exit_code == kDeathExitCode;
  result.exit_code = result.died ? -1 : static_cast<int>(exit_code);
  CloseLeftOver(with.handed_over);
  record = nullptr;
  return result;
}

}  // namespace talvex::test

// In line with its callers, GCC would take one of these for the wrong partner of another.
__declspec(noinline) void* operator new(std::size_t size) {
  talvex::test::CountAllocation();
  void* const memory = std::malloc(size);
  return memory == nullptr ? throw std::bad_alloc() : memory;
}
__declspec(noinline) void operator delete(void* memory) noexcept {
  std::free(memory);
}
__declspec(noinline) void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}
