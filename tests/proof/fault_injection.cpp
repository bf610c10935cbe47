#include "tests/proof/fault_injection.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iterator>
#include <new>
#include <utility>

#include "core/text_encoding.h"
#include "tests/proof/run_in_progress.h"

namespace talvex::test {

const RunSettings* settings = nullptr;
RunRecord* record = nullptr;
bool in_hook = false;
int pending_looks = 0;
std::map<void*, ApiCall> opened_by;

namespace {

std::atomic<DWORD> run_thread = 0;  // the thread whose calls count; 0: none
FaultPoint fault;
std::wstring pending_path;  // of a deleted file that somebody still has open

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

bool OnRun() {
  return run_thread != 0 && run_thread == GetCurrentThreadId() && !in_hook;
}

bool ClosesHandle(const ApiCall& call) {
  constexpr std::string_view kNames[] = {"CloseHandle",      "FindClose",
                                         "VirtualFree",      "BCryptDestroyHash",
                                         "BCryptDestroyKey", "BCryptCloseAlgorithmProvider"};
  return std::ranges::find(kNames, call.name) != std::end(kNames);
}

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
