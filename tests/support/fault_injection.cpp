#include "tests/support/fault_injection.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <list>
#include <map>
#include <new>
#include <tuple>
#include <type_traits>
#include <utility>

#include "core/cng.h"
#include "core/text_encoding.h"
#include "tests/support/import_patch.h"
#include "tests/support/run_memory.h"

namespace talvex::test {
namespace {

constexpr std::uintptr_t kNone = 0;
constexpr std::uintptr_t kAllBits = ~std::uintptr_t{0};  // INVALID_HANDLE_VALUE, -1, WAIT_FAILED
constexpr std::uintptr_t kBadStatus = 0xC0000001;        // STATUS_UNSUCCESSFUL

// What a call returns when it fails, and the codes that it may then plausibly leave. The second is none that
// passes.
struct Failure {
  std::uintptr_t result = kNone;
  DWORD codes[2] = {ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY};
};

// The name of a function, as a template argument.
template <std::size_t size>
struct Name {
  char text[size]{};
  // cppcheck-suppress noExplicitConstructor ; a literal becomes the argument by itself
  // NOLINTNEXTLINE(google-explicit-constructor)
  consteval Name(const char (&name)[size]) { std::copy_n(name, size, text); }
  [[nodiscard]] constexpr bool operator==(std::string_view other) const {
    return std::string_view(text) == other;
  }
};

template <Name api>
Failure failure_of;

constexpr bool ClosesHandle(std::string_view name) {
  return name == "CloseHandle" || name == "FindClose" || name == "BCryptDestroyHash" ||
         name == "BCryptDestroyKey" || name == "BCryptCloseAlgorithmProvider" || name == "VirtualFree";
}

struct OpenHandle {
  std::string_view opened_by;
  std::wstring path;
};

// The run in progress.
std::atomic<DWORD> run_thread = 0;  // the thread whose calls count; 0: none
bool in_hook = false;               // what the run's thread does now is the test's own
FaultPoint fault;
std::string_view failing_kind;  // of the calls that fail from the fault on
int failures_left = 0;
std::wstring pending_path;  // of a deleted file that somebody still has open
int pending_looks = 0;      // at it, that are still refused
const RunSettings* settings = nullptr;
RunRecord* record = nullptr;
std::map<void*, OpenHandle> open_handles;
std::map<void*, std::vector<WIN32_FIND_DATAW>> listings;  // what is left of those that go backwards

bool OnRun() {
  return run_thread != 0 && run_thread == GetCurrentThreadId() && !in_hook;
}

bool CountAllocation() {
  if (!OnRun()) {
    return false;
  }
  if (record->allocations++ == fault.index && fault.fault == Fault::kOutOfMemory) {
    throw std::bad_alloc();
  }
  return true;
}

[[noreturn]] void Die() {
  if (settings->die_for_good) {
    TerminateProcess(GetCurrentProcess(), kDeathExitCode);
  }
  run_thread = 0;
  ExitThread(kDeathExitCode);
}

void AddText(std::vector<std::wstring>& texts, const wchar_t* text) {
  if (text != nullptr) {
    texts.emplace_back(text);
  }
}
void AddText(std::vector<std::wstring>& texts, void* handle) {
  if (const auto found = open_handles.find(handle); found != open_handles.end()) {
    texts.push_back(found->second.path);
  }
}
template <typename Other>
void AddText(std::vector<std::wstring>&, const Other&) {}

template <typename Result>
Result FromValue(std::uintptr_t value) {
  if constexpr (std::is_pointer_v<Result>) {
    return reinterpret_cast<Result>(value);
  } else {
    return static_cast<Result>(value);
  }
}

template <Name api, typename... Arguments>
constexpr bool ChangesFiles(const Arguments&... arguments) {
  [[maybe_unused]] const auto all = std::tie(arguments...);
  if constexpr (api == "CreateFileW") {
    return std::get<4>(all) != OPEN_EXISTING;
  } else if constexpr (api == "MoveFileExW") {
    return std::get<1>(all) != nullptr;
  } else {
    return api == "WriteFile" || api == "CreateDirectoryW" || api == "RemoveDirectoryW" ||
           api == "DeleteFileW" || api == "CopyFileW" || api == "ReplaceFileW";
  }
}

// Reads the rest of a listing that has begun with `first`, and makes its last entry the first.
void ListBackwards(HANDLE search, WIN32_FIND_DATAW& first) {
  std::vector<WIN32_FIND_DATAW>& entries = listings[search];
  entries = {first};
  for (WIN32_FIND_DATAW entry{}; FindNextFileW(search, &entry);) {
    entries.push_back(entry);
  }
  std::ranges::sort(entries, {}, [](const WIN32_FIND_DATAW& entry) { return std::wstring(entry.cFileName); });
  first = entries.back();
  entries.pop_back();
}

// The call as a run makes it when nothing fails: the real one, but for what would leave the test's directory,
// and for flushes, which a process that dies does not need.
template <Name api, typename Result, typename... Arguments>
Result Perform([[maybe_unused]] Result(WINAPI* original)(Arguments...), Arguments... arguments) {
  [[maybe_unused]] const auto all = std::tie(arguments...);
  if constexpr (api == "FlushFileBuffers") {
    return TRUE;
  } else if constexpr (api == "MoveFileExW") {
    return std::get<1>(all) == nullptr ? TRUE : original(arguments...);  // deletion at the next restart
  } else if constexpr (api == "GetFileInformationByHandle") {
    // Wine takes two milliseconds for the number of the volume, which nobody asks for.
    FILE_BASIC_INFO basic{};
    FILE_STANDARD_INFO standard{};
    auto& information = *std::get<1>(all);
    const BOOL told =
        GetFileInformationByHandleEx(std::get<0>(all), FileBasicInfo, &basic, sizeof(basic)) &&
        GetFileInformationByHandleEx(std::get<0>(all), FileStandardInfo, &standard, sizeof(standard));
    information.dwFileAttributes = basic.FileAttributes;
    information.nNumberOfLinks = standard.NumberOfLinks;
    return told;
  } else if constexpr (api == "FindFirstFileW") {
    const HANDLE search = original(arguments...);
    if (search != INVALID_HANDLE_VALUE && settings->list_backwards) {
      ListBackwards(search, *std::get<1>(all));
    }
    return search;
  } else if constexpr (api == "FindNextFileW") {
    const auto listing = listings.find(std::get<0>(all));
    if (listing == listings.end()) {
      return original(arguments...);
    }
    if (listing->second.empty()) {
      SetLastError(ERROR_NO_MORE_FILES);
      return FALSE;
    }
    *std::get<1>(all) = listing->second.back();
    listing->second.pop_back();
    return TRUE;
  } else if constexpr (api == "GetModuleFileNameW") {
    const auto length = static_cast<DWORD>(settings->program.copy(std::get<1>(all), std::get<2>(all) - 1));
    std::get<1>(all)[length] = L'\0';
    return length;
  } else if constexpr (api == "CreateProcessW") {
    auto& started = *std::get<9>(all);
    started.hProcess = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    started.hThread = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    open_handles[started.hProcess] = open_handles[started.hThread] = {"CreateEventW", L"client"};
    record->client_started = true;
    return TRUE;
  } else {
    return original(arguments...);
  }
}

template <Name api>
void Forget(void* handle) {
  if (open_handles.erase(handle) == 0) {
    record->violations.push_back("closed what is not open: " + std::string(api.text));
  }
}

// The call as it fails: without effect, but for those below.
template <Name api, typename Result, typename... Arguments>
Result FailCall([[maybe_unused]] DWORD code, [[maybe_unused]] Result(WINAPI* original)(Arguments...),
                Arguments... arguments) {
  [[maybe_unused]] const auto all = std::tie(arguments...);
  if constexpr (ClosesHandle(api.text)) {
    original(arguments...);  // whatever it says, the handle is gone
    Forget<api>(std::get<0>(all));
  } else if constexpr (api == "ReplaceFileW") {
    // With a backup name given, both files keep their names after 1175 and 1176; after 1177 the replaced
    // file has the backup's name already, and nothing has its own.
    if (code == ERROR_UNABLE_TO_MOVE_REPLACEMENT_2) {
      MoveFileExW(std::get<0>(all), std::get<2>(all), 0);
    }
  }
  return FromValue<Result>(failure_of<api>.result);
}

// Half of what the call should have written.
template <Name api, typename... Arguments>
void LeaveHalf([[maybe_unused]] Arguments... arguments) {
  if constexpr (api == "CopyFileW") {
    const HANDLE file = CreateFileW(std::get<1>(std::tie(arguments...)), GENERIC_WRITE, 0, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    SetFilePointer(file, static_cast<LONG>(GetFileSize(file, nullptr) / 2), nullptr, FILE_BEGIN);
    SetEndOfFile(file);
    CloseHandle(file);
  }
}

template <Name api, typename Result, typename... Arguments>
void TrackHandles([[maybe_unused]] Result result, [[maybe_unused]] const std::vector<std::wstring>& texts,
                  Arguments... arguments) {
  [[maybe_unused]] const auto all = std::tie(arguments...);
  [[maybe_unused]] const auto opened = [&](void* handle) {
    open_handles[handle] = {api.text, texts.empty() ? L"" : texts[0]};
  };
  if constexpr (api == "CreateFileW" || api == "FindFirstFileW" || api == "CreateEventW" ||
                api == "VirtualAlloc") {
    if (result != FromValue<Result>(failure_of<api>.result)) {
      opened(result);
    }
  } else if constexpr (api == "BCryptOpenAlgorithmProvider") {
    opened(*std::get<0>(all));
  } else if constexpr (api == "BCryptCreateHash") {
    opened(*std::get<1>(all));
  } else if constexpr (api == "BCryptImportKeyPair") {
    opened(*std::get<3>(all));
  } else if constexpr (ClosesHandle(api.text)) {
    Forget<api>(std::get<0>(all));
  }
}

template <Name api, typename... Arguments>
Opening OpeningOf([[maybe_unused]] const Arguments&... arguments) {
  if constexpr (api == "CreateFileW") {
    const auto all = std::tie(arguments...);
    const DWORD access = std::get<1>(all);
    const DWORD flags = std::get<5>(all);
    return (flags & FILE_FLAG_BACKUP_SEMANTICS) != 0  ? Opening::kToHold
           : (access & GENERIC_WRITE) != 0            ? Opening::kToWrite
           : (access & GENERIC_READ) == 0             ? Opening::kToLook
           : (flags & FILE_FLAG_SEQUENTIAL_SCAN) != 0 ? Opening::kToHash
                                                      : Opening::kToCopy;
  } else {
    return Opening::kNone;
  }
}

// Whether the call meets the name of a deleted file, or the directory that it is still in.
template <Name api>
bool IsPending(const std::vector<std::wstring>& texts) {
  if (pending_looks == 0) {
    return false;
  }
  const bool meets = api == "RemoveDirectoryW" ? pending_path.starts_with(texts[0] + L"\\")
                     : ClosesHandle(api.text)  ? false
                                               : std::ranges::find(texts, pending_path) != texts.end();
  pending_looks -= meets ? 1 : 0;
  return meets;
}

template <Name api, typename Result, typename... Arguments>
Result Intercept(Result(WINAPI* original)(Arguments...), Arguments... arguments) {
  const DWORD last_error = GetLastError();
  in_hook = true;
  const std::size_t index = record->calls.size();
  record->calls.push_back({api.text, OpeningOf<api>(arguments...), {}, record->allocations});
  std::vector<std::wstring>& texts = record->calls.back().texts;
  (AddText(texts, arguments), ...);
  const bool here = index == fault.index;
  if (here && fault.fault == Fault::kDieBefore) {
    Die();
  }
  if (here && fault.fault == Fault::kFailFromHere) {
    failing_kind = api.text;
  }
  Result result{};
  DWORD code =
      fault.code != 0 ? fault.code : failure_of<api>.codes[failing_kind.empty() ? 1 : fault.index % 2];
  const bool fails_again = fault.fault == Fault::kFail && failures_left != 0 && index >= fault.index &&
                           record->calls[index].DoesTheSameAs(record->calls[fault.index]);
  if (IsPending<api>(texts)) {
    code = api == "RemoveDirectoryW" ? DWORD{ERROR_DIR_NOT_EMPTY} : DWORD{ERROR_ACCESS_DENIED};
    result = FromValue<Result>(failure_of<api>.result);
  } else if (fails_again || failing_kind == api.text) {
    failures_left -= fails_again ? 1 : 0;
    record->calls.back().made_to_fail = true;
    result = FailCall<api>(code, original, arguments...);
  } else {
    SetLastError(last_error);
    result = Perform<api>(original, arguments...);
    code = GetLastError();
    TrackHandles<api>(result, texts, arguments...);
    if (here && fault.fault == Fault::kDeletePending) {
      pending_path = texts[0];
      pending_looks = 2;
    }
    if (here && fault.fault == Fault::kDieInside) {
      LeaveHalf<api>(arguments...);
      Die();
    }
  }
  if (ChangesFiles<api>(arguments...) && settings->after_change) {
    if (const std::string wrong = settings->after_change(*record); !wrong.empty()) {
      record->violations.push_back(wrong);
    }
  }
  if (here && fault.fault == Fault::kDieAfter) {
    Die();
  }
  in_hook = false;
  SetLastError(code);
  return result;
}

// One patched import.
template <Name api, typename Result, typename... Arguments>
struct Hook {
  using Function = Result(WINAPI*)(Arguments...);
  static inline Function original = nullptr;

  static Result WINAPI Replacement([[maybe_unused]] Arguments... arguments) {
    if (!OnRun()) {
      return original(arguments...);
    }
    if constexpr (api == "Sleep") {
      in_hook = true;
      record->sleeps.push_back(std::get<0>(std::tie(arguments...)));
      in_hook = false;
      pending_looks = 0;
    } else if constexpr (api == "CreateThread") {
      return nullptr;
    } else if constexpr (api == "GetCurrentProcessId") {
      return settings->process_id;
    } else if constexpr (api == "MessageBoxW") {
      in_hook = true;
      record->message = std::get<1>(std::tie(arguments...));
      in_hook = false;
      return IDOK;
    } else {
      return Intercept<api>(original, arguments...);
    }
  }
};

std::list<ImportPatch> patches;

template <Name api, typename Result, typename... Arguments>
void Patch(Result(WINAPI*)(Arguments...), const Failure& failure = {}) {
  using ThisHook = Hook<api, Result, Arguments...>;
  ThisHook::original = reinterpret_cast<typename ThisHook::Function>(*FindImportSlot(api.text));
  failure_of<api> = failure;
  patches.emplace_back(api.text, &ThisHook::Replacement);
}

// A function of the table through which the product calls CNG.
template <Name api, typename Result, typename... Arguments>
void PatchCng(Result(WINAPI*& function)(Arguments...)) {
  using ThisHook = Hook<api, Result, Arguments...>;
  ThisHook::original = function;
  failure_of<api> = {kBadStatus};
  function = &ThisHook::Replacement;
}

// Every call of the product that touches a file, a handle, a mutex, a process or a hash. The patches stay for
// the rest of the program; calls outside a run go straight through.
void PatchImports() {
  if (!patches.empty()) {
    return;
  }
  constexpr Failure kBadHandle = {kAllBits, {ERROR_SHARING_VIOLATION, ERROR_NO_SYSTEM_RESOURCES}};
  constexpr Failure kInUse = {kNone, {ERROR_SHARING_VIOLATION, ERROR_WRITE_PROTECT}};
  constexpr Failure kDiskFull = {kNone, {ERROR_ACCESS_DENIED, ERROR_DISK_FULL}};
  CngFunctions& cng = *Cng();
  Patch<"CreateFileW">(CreateFileW, kBadHandle);
  Patch<"ReadFile">(ReadFile, {kNone, {ERROR_LOCK_VIOLATION, ERROR_CRC}});
  Patch<"WriteFile">(WriteFile, kDiskFull);
  Patch<"GetFileSizeEx">(GetFileSizeEx);
  Patch<"GetFileInformationByHandle">(GetFileInformationByHandle);
  Patch<"GetFileInformationByHandleEx">(GetFileInformationByHandleEx);
  Patch<"FlushFileBuffers">(FlushFileBuffers, kDiskFull);
  Patch<"GetFileAttributesW">(GetFileAttributesW, kBadHandle);
  Patch<"SetFileAttributesW">(SetFileAttributesW);
  Patch<"GetFullPathNameW">(GetFullPathNameW);
  Patch<"CreateDirectoryW">(CreateDirectoryW, kDiskFull);
  Patch<"RemoveDirectoryW">(RemoveDirectoryW, {kNone, {ERROR_SHARING_VIOLATION, ERROR_DIR_NOT_EMPTY}});
  Patch<"DeleteFileW">(DeleteFileW, kInUse);
  Patch<"CopyFileW">(CopyFileW, kDiskFull);
  Patch<"MoveFileExW">(MoveFileExW, kInUse);
  Patch<"ReplaceFileW">(ReplaceFileW, kInUse);
  Patch<"FindFirstFileW">(FindFirstFileW, {kAllBits, {ERROR_ACCESS_DENIED, ERROR_FILE_NOT_FOUND}});
  Patch<"FindNextFileW">(FindNextFileW);
  Patch<"FindClose">(FindClose);
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
  Patch<"VirtualAlloc">(VirtualAlloc, {kNone, {ERROR_NOT_ENOUGH_MEMORY, ERROR_COMMITMENT_LIMIT}});
  Patch<"VirtualFree">(VirtualFree);
  Patch<"GetHandleInformation">(GetHandleInformation);
  Patch<"SetHandleInformation">(SetHandleInformation);
  Patch<"WaitForSingleObject">(WaitForSingleObject, kBadHandle);
  Patch<"ReleaseMutex">(ReleaseMutex);
  Patch<"CloseHandle">(CloseHandle);
  Patch<"CreateEventW">(CreateEventW);
  Patch<"CreateProcessW">(CreateProcessW, {kNone, {ERROR_ACCESS_DENIED, ERROR_FILE_NOT_FOUND}});
  Patch<"SetEnvironmentVariableW">(SetEnvironmentVariableW);
  Patch<"InitializeProcThreadAttributeList">(InitializeProcThreadAttributeList);
  Patch<"UpdateProcThreadAttribute">(UpdateProcThreadAttribute);
  Patch<"GetModuleFileNameW">(GetModuleFileNameW);
  // Not counted, only replaced for the time of a run.
  Patch<"CreateThread">(CreateThread);  // no status window
  Patch<"Sleep">(Sleep);
  Patch<"MessageBoxW">(MessageBoxW);
  Patch<"GetCurrentProcessId">(GetCurrentProcessId);
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

void CloseLeftOver(void* handle, std::string_view opened_by) {
  if (opened_by == "FindFirstFileW") {
    FindClose(handle);
  } else if (opened_by == "BCryptOpenAlgorithmProvider") {
    Cng()->BCryptCloseAlgorithmProvider(handle, 0);
  } else if (opened_by == "BCryptCreateHash") {
    Cng()->BCryptDestroyHash(handle);
  } else if (opened_by == "BCryptImportKeyPair") {
    Cng()->BCryptDestroyKey(handle);
  } else if (opened_by == "VirtualAlloc") {
    VirtualFree(handle, 0, MEM_RELEASE);
  } else {
    CloseHandle(handle);
  }
}

// What Windows does when a process ends, the hash objects before the memory that they lie in.
void GiveBack(const std::vector<HANDLE>& handed_over) {
  for (const auto& [handle, open] : std::exchange(open_handles, {})) {
    if (!record->died && std::ranges::find(handed_over, handle) == handed_over.end()) {
      record->violations.push_back("left open: " + std::string(open.opened_by) + " " + WideToUtf8(open.path));
    }
    CloseLeftOver(handle, open.opened_by);
  }
  FreeRunMemory();
}

}  // namespace

bool RunRecord::IsFlushed(std::wstring_view path) const {
  const auto last = std::ranges::find_if(calls.rbegin(), calls.rend(), [&](const ApiCall& call) {
    return (call.name == "FlushFileBuffers" || call.name == "WriteFile") && !call.texts.empty() &&
           call.texts[0] == path;
  });
  return last != calls.rend() && last->name == "FlushFileBuffers" && !last->made_to_fail;
}

RunRecord RunWithFault(const std::function<int()>& transaction, const FaultPoint& point,
                       const RunSettings& with) {
  PatchImports();
  count_allocation = CountAllocation;
  RunRecord result;
  fault = point;
  failing_kind = {};
  failures_left = point.times;
  pending_looks = 0;
  listings.clear();
  settings = &with;
  record = &result;
  in_hook = false;
  for (const HANDLE handle : with.handed_over) {
    open_handles[handle] = {};
  }
  auto* const run = const_cast<std::function<int()>*>(&transaction);
  const HANDLE thread = CreateThread(nullptr, 0, RunOnThread, run, 0, nullptr);
  WaitForSingleObject(thread, INFINITE);
  DWORD exit_code = 0;
  GetExitCodeThread(thread, &exit_code);
  CloseHandle(thread);
  result.died = exit_code == kDeathExitCode;
  result.exit_code = result.died ? -1 : static_cast<int>(exit_code);
  GiveBack(with.handed_over);
  record = nullptr;
  return result;
}

}  // namespace talvex::test
