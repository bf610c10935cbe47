#include "apply/client_relaunch.h"

#include <cstdint>

#include "core/inherited_handle_list.h"
#include "core/memory_shortage.h"
#include "core/text_encoding.h"
#include "storage/client_root.h"

namespace talvex {
namespace {

constexpr std::wstring_view kLockNotInherited = L"The update health lock could not be inherited.";
constexpr std::wstring_view kHandoffFailed =
    L"The update finished, but Talvex could not set its restart handoff.";
constexpr std::wstring_view kRestartFailed =
    L"The update finished, but Talvex could not restart with its health lock.";

// The handoff environment of this process, taken out again when the owner goes.
class HandoffEnvironment {
 public:
  HandoffEnvironment() = default;
  HandoffEnvironment(const HandoffEnvironment&) = delete;
  HandoffEnvironment& operator=(const HandoffEnvironment&) = delete;
  ~HandoffEnvironment() {
    SetEnvironmentVariableW(kRelaunchedManifestVariable, nullptr);
    SetEnvironmentVariableW(kHealthLockVariable, nullptr);
  }

  [[nodiscard]] bool Set(const std::wstring& manifest_digest, const std::wstring& lock_value) const {
    return SetEnvironmentVariableW(kRelaunchedManifestVariable, manifest_digest.c_str()) &&
           SetEnvironmentVariableW(kHealthLockVariable, lock_value.c_str());
  }
};

bool MakeInheritable(HANDLE lock) {
  DWORD flags = 0;
  return lock != nullptr && GetHandleInformation(lock, &flags) &&
         SetHandleInformation(lock, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
}

bool StartClient(const std::wstring& client_root, HANDLE lock, RelaunchedClient& client) {
  const InheritedHandleList inherited({lock});
  if (!inherited.IsComplete()) {
    return false;
  }
  const std::wstring program = JoinPath(client_root, kClientFileName);
  std::wstring command_line = L"\"" + program + L"\"";  // CreateProcessW wants to be able to write here
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof(startup);
  startup.lpAttributeList = inherited.Get();
  PROCESS_INFORMATION started{};
  if (!CreateProcessW(program.c_str(), command_line.data(), nullptr, nullptr, TRUE,
                      EXTENDED_STARTUPINFO_PRESENT | CREATE_UNICODE_ENVIRONMENT, nullptr, client_root.c_str(),
                      &startup.StartupInfo, &started)) {
    return false;
  }
  client.process.Reset(started.hProcess);
  client.thread.Reset(started.hThread);
  return true;
}

}  // namespace

bool RelaunchClient(const std::wstring& client_root, const Manifest& new_manifest, HANDLE lock,
                    RelaunchedClient& client, UpdateError& error) {
  if (!MakeInheritable(lock)) {
    return Refuse(error, kLockNotInherited);
  }
  // The release is installed: should memory run out, that must not read like an update that failed.
  const HandoffEnvironment handoff{};
  const auto lock_value = reinterpret_cast<std::uintptr_t>(lock);
  if (!SucceedsInMemory(
          [&] { return handoff.Set(DigestToHex(new_manifest.digest), std::to_wstring(lock_value)); })) {
    return Refuse(error, kHandoffFailed);
  }
  if (!SucceedsInMemory([&] { return StartClient(client_root, lock, client); })) {
    return Refuse(error, kRestartFailed);
  }
  return true;
}

}  // namespace talvex
