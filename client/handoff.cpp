#include "client/handoff.h"

#include <windows.h>

#include <utility>

#include "core/handoff_variables.h"
#include "core/text_encoding.h"
#include "core/transaction_handles.h"

namespace talvex::client {
namespace {

constexpr DWORD kFinishWaitMs = 10'000;
constexpr DWORD kPollMs = 50;
constexpr wchar_t kArgumentsVariable[] = L"TALVEX_UPDATE_CLIENT_ARGUMENTS";

// The value of an environment variable, which is then removed; empty when there is none.
std::wstring TakeVariable(const wchar_t* name) {
  std::wstring value(GetEnvironmentVariableW(name, nullptr, 0), L'\0');  // the terminating zero included
  const DWORD length =
      value.empty() ? 0 : GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size()));
  SetEnvironmentVariableW(name, nullptr);
  value.resize(length < value.size() ? length : 0);
  return value;
}

// Whether `handle` is a mutex. A stranger's number may be any handle of this process, which must then not be
// closed: only a mutex answers a release that it was not owned.
bool IsMutex(HANDLE handle) {
  return ReleaseMutex(handle) || GetLastError() == ERROR_NOT_OWNER;
}

}  // namespace

Handoff TakeHandoff(bool has_journal) {
  Handoff handoff;
  const std::wstring digest_text = TakeVariable(kRelaunchedManifestVariable);
  const std::wstring lock_text = TakeVariable(kHealthLockVariable);
  std::wstring arguments = TakeVariable(kArgumentsVariable);
  const HANDLE lock = has_journal ? ParseHandle(lock_text.c_str()) : nullptr;
  if (lock != nullptr && IsMutex(lock)) {
    SetHandleInformation(lock, HANDLE_FLAG_INHERIT, 0);  // it was only meant for this process
    handoff.lock.Reset(lock);  // also without a digest: otherwise the handle would leak
    handoff.present = ParseHexDigest(WideToUtf8(digest_text), handoff.manifest_digest);
  }
  if (handoff.present) {
    handoff.arguments = std::move(arguments);
  }
  return handoff;
}

bool WaitForHelper(const Handoff& handoff, const Callbacks& callbacks) {
  PhaseProgress waiting(callbacks, TALVEX_PHASE_SETTLE, 0);
  DWORD result = WAIT_TIMEOUT;
  for (DWORD waited_ms = 0; result == WAIT_TIMEOUT && waited_ms < kFinishWaitMs; waited_ms += kPollMs) {
    waiting.FinishFile(0);
    result = WaitForSingleObject(handoff.lock.Get(), kPollMs);
  }
  if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) {
    ReleaseMutex(handoff.lock.Get());  // from here on the lock file counts
    return true;
  }
  return false;
}

ArgumentsForRestart::ArgumentsForRestart(const std::wstring& arguments)
    : is_set_(SetEnvironmentVariableW(kArgumentsVariable, arguments.empty() ? nullptr : arguments.c_str()) ||
              arguments.empty()) {}

ArgumentsForRestart::~ArgumentsForRestart() {
  SetEnvironmentVariableW(kArgumentsVariable, nullptr);
}

}  // namespace talvex::client
