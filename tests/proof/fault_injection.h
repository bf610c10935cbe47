#pragma once

// Runs a transaction of the product in this process with a fault at one of its Win32 calls: the call fails,
// or the process dies there. The calls are caught in this program's import address table, so the product's
// own libraries run as they are. A program that links this has a counting operator new.
//
// A process that dies is a thread that ends inside the call: nothing above it on the stack runs any more, the
// mutex it held is abandoned, and what it had open is closed afterwards, as Windows would.

#include <windows.h>

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace talvex::test {

enum class Fault {
  kNone,
  kFail,          // the call, and the next ones that do the same, as often as the point says
  kFailFromHere,  // the call, and all later ones of the same function
  kDieBefore,
  kDieAfter,
  kDieInside,      // half of what the call should have written is there
  kDeletePending,  // the deleted file keeps its name a moment longer
  kOutOfMemory
};

struct FaultPoint {
  Fault fault = Fault::kNone;
  std::size_t index = 0;  // of the call; of the allocation for kOutOfMemory
  DWORD code = 0;         // with which the call fails; 0: a plausible one of its kind, which no retry helps
  int times = 1;
};

struct ApiCall {
  std::string_view name;
  std::size_t allocations_before = 0;
  std::vector<std::wstring> texts = {};  // those it was given, and the paths of the files behind its handles
  std::vector<DWORD> numbers = {};
  void* handle = nullptr;  // the first it was given
  bool made_to_fail = false;

  [[nodiscard]] std::wstring Path() const { return texts.empty() ? L"" : texts[0]; }
  [[nodiscard]] bool DoesTheSameAs(const ApiCall& other) const {
    return name == other.name && texts == other.texts && numbers == other.numbers;
  }
};

struct RunRecord {
  bool died = false;
  int exit_code = -1;
  std::wstring message;  // of the message box; empty when none was shown
  bool client_started = false;
  std::size_t allocations = 0;
  DWORD waited_ms = 0;  // between attempts
  std::vector<ApiCall> calls;
  std::set<std::wstring> unflushed;  // files that were written, copied or replaced, and not flushed since
  std::string violations;            // a line each
};

// What the transaction meets besides the fault.
struct RunSettings {
  std::wstring program;             // what the running program says its own path is
  bool die_for_good = false;        // a death ends this whole process
  bool list_backwards = false;      // directories are listed from Z to A
  std::vector<HANDLE> handed_over;  // handles that the transaction may close, and that are closed after it
  // Called after each call that changed a file or directory. Says what is wrong now, a line each.
  std::function<std::string(const RunRecord& record)> after_change;
};

// The exit code of a process that dies for good.
inline constexpr UINT kDeathExitCode = 77;

[[nodiscard]] RunRecord RunWithFault(const std::function<int()>& transaction, const FaultPoint& point,
                                     const RunSettings& with);

}  // namespace talvex::test
