#include "examples/client/handoff.h"

#include <windows.h>

#include <array>
#include <cstdint>
#include <string>

#include "core/handoff_variables.h"
#include "core/text_encoding.h"

namespace talvex::example {
namespace {

std::wstring TakeVariable(const wchar_t* name) {
  std::array<wchar_t, kDigestHexLength + 1> value{};  // the longer of the two, with its terminating zero
  const DWORD length = GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size()));
  SetEnvironmentVariableW(name, nullptr);
  return length < value.size() ? std::wstring(value.data(), length) : std::wstring();
}

}  // namespace

Handoff TakeHandoff() {
  Handoff handoff;
  const std::wstring digest_text = TakeVariable(kRelaunchedManifestVariable);
  const std::wstring lock_text = TakeVariable(kHealthLockVariable);
  std::uint64_t lock_value = 0;
  DWORD flags = 0;
  if (!ParseDecimalU64(lock_text, lock_value) || lock_value == 0 || lock_value > UINT32_MAX) {
    return handoff;
  }
  auto* const lock = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(lock_value));
  if (GetHandleInformation(lock, &flags)) {
    handoff.lock.Reset(lock);  // also without a digest: otherwise the handle would leak
    handoff.present = ParseHexDigest(WideToUtf8(digest_text), handoff.manifest_digest);
  }
  return handoff;
}

}  // namespace talvex::example
