#include "client/installed_release.h"

#include <windows.h>

#include "core/whole_file.h"
#include "formats/installed_state.h"
#include "formats/managed_file.h"
#include "formats/verified_cache.h"
#include "storage/client_root.h"

namespace talvex::client {
namespace {

// A scanner or an indexer may hold a new file for a moment: only what stays wrong is broken.
constexpr int kAttempts = 4;
constexpr DWORD kRetryMs = 500;

constexpr wchar_t kFileDiffers[] = L"A file differs from its release.";
constexpr wchar_t kNoneInstalled[] = L"No installed release can be proved.";
constexpr wchar_t kOtherInstalled[] = L"Another release than the one just installed is recorded.";

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

InstalledRelease LoadInstalledRelease(const std::wstring& client_root, const TrustedKeys& keys) {
  InstalledRelease installed;
  InstalledState state;
  for (installed.key = 0; installed.key < keys.size(); ++installed.key) {
    if (LoadTrustedState(client_root, keys[installed.key], state, installed.manifest)) {
      installed.is_proven = true;
      return installed;
    }
  }
  ByteBuffer manifest_bytes;
  ByteBuffer signature;
  UpdateError unreported;
  if (LoadVerifiedCache(client_root, manifest_bytes, signature, unreported)) {
    installed.key = FindSigningKey(keys, manifest_bytes, signature, installed.manifest, unreported);
    if (installed.key == keys.size()) {
      installed.manifest = {};
    }
  }
  return installed;
}

bool MayFollow(const InstalledRelease& installed, std::uint64_t lowest_sequence, const Manifest& offered,
               UpdateError& error) {
  InstalledState lower_bound;
  lower_bound.present = installed.manifest.sequence != 0;
  lower_bound.sequence = installed.manifest.sequence;
  lower_bound.manifest_digest = installed.manifest.digest;
  InstalledState minimum;
  minimum.present = offered.sequence < lowest_sequence;
  minimum.sequence = lowest_sequence;
  return CheckReleaseOrder(lower_bound, offered, error) && CheckReleaseOrder(minimum, offered, error);
}

bool IsFileOfRelease(const std::wstring& directory, const ManifestEntry& entry, PhaseProgress& progress,
                     UpdateError& error) {
  std::wstring path;
  return ResolveCheckedPath(directory, entry.normalised_path, path, error) &&
         VerifyManagedFile(path, entry, entry.size, kFileDiffers, error, PhaseProgress::OnHashed, &progress);
}

bool VerifyInstalledRelease(const std::wstring& client_root, const TrustedKeys& keys,
                            const Sha256Digest* expected, const Callbacks& callbacks, Manifest& installed,
                            UpdateError& error) {
  InstalledRelease release;
  if (!SucceedsInTime([&] {
        release = LoadInstalledRelease(client_root, keys);
        return release.is_proven || (expected == nullptr && release.manifest.sequence != 0);
      })) {
    return Refuse(error, kNoneInstalled);
  }
  installed = std::move(release.manifest);
  if (expected != nullptr && !DigestsEqual(*expected, installed.digest)) {
    return Refuse(error, kOtherInstalled);
  }
  PhaseProgress progress(callbacks, TALVEX_PHASE_SETTLE, TotalSize(installed));
  for (const ManifestEntry& entry : installed.entries) {
    if (!SucceedsInTime([&] {
          error = {};  // only the last attempt's message counts
          return IsFileOfRelease(client_root, entry, progress, error);
        })) {
      return Refuse(error, entry.normalised_path + L": " + error.Message());
    }
    progress.FinishFile(entry.size);
  }
  return true;
}

}  // namespace talvex::client
