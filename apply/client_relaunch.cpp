#include "apply/client_relaunch.h"

#include <cstdint>

#include "core/handoff_variables.h"
#include "core/memory_shortage.h"
#include "core/text_encoding.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr wchar_t kLockNotInherited[] = L"The update health lock could not be inherited.";
constexpr wchar_t kHandoffFailed[] = L"The update finished, but Talvex could not set its restart handoff.";
constexpr wchar_t kRestartFailed[] =
    L"The update finished, but Talvex could not restart with its health lock.";

// The handoff variables in this process's environment, removed again by the destructor.
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

bool StartClient(const std::wstring& client_root, HANDLE lock, ChildProcess& client) {
  const std::wstring program = ClientProgramPath(client_root);
  return StartChildProcess(program, L"\"" + program + L"\"", client_root, {lock}, client);
}

}  // namespace

bool RelaunchClient(const std::wstring& client_root, const Manifest& new_manifest, HANDLE lock,
                    ChildProcess& client, UpdateError& error) {
  if (!MakeInheritable(lock)) {
    return Refuse(error, kLockNotInherited);
  }
  // The release is installed: running out of memory must not be reported as a failed update.
  const HandoffEnvironment handoff{};
  const auto lock_value = reinterpret_cast<std::uintptr_t>(lock);
  if (!RunCatchingBadAlloc(
          [&] { return handoff.Set(DigestToHex(new_manifest.digest), std::to_wstring(lock_value)); })) {
    return Refuse(error, kHandoffFailed);
  }
  if (!RunCatchingBadAlloc([&] { return StartClient(client_root, lock, client); })) {
    return Refuse(error, kRestartFailed);
  }
  return true;
}

}  // namespace talvex
