#include "examples/client/health_check.h"

#include <windows.h>

#include <cstdint>
#include <string_view>

#include "core/publisher_key.h"
#include "core/regular_file.h"
#include "core/whole_file.h"
#include "formats/managed_file.h"
#include "formats/text_lines.h"
#include "formats/verified_cache.h"
#include "storage/client_root.h"

namespace talvex::example {
namespace {

// The part of a game that a release can break. Your client does a real start here: load the engine, open the
// archives, draw a frame.
constexpr wchar_t kStartScriptName[] = L"start.cfg";
constexpr std::uint32_t kStartScriptSizeLimit = 4'096;  // bytes
constexpr char kStartScriptOfWorkingClient[] = "start=ok";
constexpr char kStartScriptOfDyingClient[] = "start=die";
constexpr UINT kExitOfDyingClient = 99;

// A scanner or an indexer may hold a new file for a moment: only what stays wrong is broken.
constexpr int kAttempts = 4;
constexpr DWORD kRetryMs = 500;

constexpr wchar_t kFileDiffers[] = L"A file differs from its release.";
constexpr wchar_t kNoneInstalled[] = L"No installed release can be proved.";
constexpr wchar_t kOtherInstalled[] = L"Another release than the one just installed is recorded.";
constexpr wchar_t kStartCrashes[] = L"The start script asks for a crash.";

template <typename Check>
bool SucceedsInTime(Check check) {
  for (int attempt = 1; !check(); ++attempt) {
    if (attempt == kAttempts) {
      return false;
    }
    Sleep(kRetryMs);
  }
  return true;
}

}  // namespace

bool IsFileOfRelease(const std::wstring& directory, const ManifestEntry& entry, UpdateError& error) {
  std::wstring path;
  if (!ResolveCheckedPath(directory, entry.normalised_path, path, error)) {
    return false;
  }
  return VerifyManagedFile(path, entry, entry.size, kFileDiffers, error);
}

bool CheckFiles(const std::wstring& client_root, const Sha256Digest* expected, Manifest& installed,
                UpdateError& error) {
  InstalledState state;
  if (!SucceedsInTime([&] { return LoadTrustedState(client_root, PublisherKeyBlob(), state, installed); })) {
    return Refuse(error, kNoneInstalled);
  }
  if (expected != nullptr && !DigestsEqual(*expected, installed.digest)) {
    return Refuse(error, kOtherInstalled);
  }
  for (const ManifestEntry& entry : installed.entries) {
    if (!SucceedsInTime([&] {
          error = {};  // only the last attempt's message counts
          return IsFileOfRelease(client_root, entry, error);
        })) {
      SetError(error, entry.normalised_path + L": " + error.Message());
      return false;
    }
  }
  return true;
}

bool TryToStart(const std::wstring& client_root, UpdateError& error) {
  const std::wstring path = JoinPath(client_root, kStartScriptName);
  if (!MayExist(path)) {
    return true;
  }
  ByteBuffer script;
  if (!SucceedsInTime([&] { return ReadWholeFile(path, kStartScriptSizeLimit, script, error); })) {
    return false;
  }
  if (AsText(script).starts_with(kStartScriptOfDyingClient)) {
    TerminateProcess(GetCurrentProcess(), kExitOfDyingClient);
  }
  return AsText(script).starts_with(kStartScriptOfWorkingClient) || Refuse(error, kStartCrashes);
}

}  // namespace talvex::example
