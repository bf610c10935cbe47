#pragma once

// Runs a transaction of the product in this process with a fault at one of its Win32 calls: the call fails,
// or the process dies there. The calls are caught in this program's import address table, so the product's
// own libraries run as they are.
//
// A process that dies is a thread that ends inside the call: nothing above it on the stack runs any more, the
// mutex it held is abandoned, and what it had open or allocated is given back afterwards, as Windows would.

#include <windows.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace talvex::test {

enum class Fault {
  kNone,
  kFail,  // the call, and the next ones that do the same, as often as the point says
  kFailFromHere,
  kDieBefore,
  kDieAfter,
  kDieInside,
  kDeletePending,  // the deleted file keeps its name a moment longer
  kOutOfMemory
};

struct FaultPoint {
  Fault fault = Fault::kNone;
  std::size_t index = 0;  // of the call; of the allocation for kOutOfMemory
  DWORD code = 0;         // with which the call fails; 0: a plausible one of its kind, which no retry helps
  int times = 1;
};

// What CreateFileW opens something for.
enum class Opening { kNone, kToHold, kToLook, kToHash, kToCopy, kToWrite };

struct ApiCall {
  std::string_view name;
  Opening opening = Opening::kNone;
  // The call's texts, and the paths of the files whose handles it was given.
  std::vector<std::wstring> texts;
  std::size_t allocations_before = 0;
  bool made_to_fail = false;

  [[nodiscard]] bool DoesTheSameAs(const ApiCall& other) const {
    return name == other.name && opening == other.opening && texts == other.texts;
  }
};

struct RunRecord {
  bool died = false;
  int exit_code = -1;
  std::wstring message;  // of the message box; empty when none was shown
  bool client_started = false;
  std::size_t allocations = 0;
  std::vector<DWORD> sleeps;  // in milliseconds
  std::vector<ApiCall> calls;
  std::vector<std::string> violations;

  // Whether the file has been flushed since it was last written to.
  [[nodiscard]] bool IsFlushed(std::wstring_view path) const;
};

// What the transaction meets besides the fault.
struct RunSettings {
  std::wstring program;             // what the running program says its own path is
  DWORD process_id = 1;             // and its own number
  bool die_for_good = false;        // a death ends this whole process
  bool list_backwards = false;      // directories are listed from Z to A
  std::vector<HANDLE> handed_over;  // handles that the transaction may close, and that are closed after it
  // Called after each call that changed a file or directory; says what is wrong now, or nothing.
  std::function<std::string(const RunRecord& record)> after_change;
};

// The exit code of a process that dies for good.
inline constexpr UINT kDeathExitCode = 77;

[[nodiscard]] RunRecord RunWithFault(const std::function<int()>& transaction, const FaultPoint& point,
                                     const RunSettings& with);

}  // namespace talvex::test
