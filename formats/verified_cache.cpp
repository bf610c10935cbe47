#include "formats/verified_cache.h"

#include <windows.h>

#include <string>
#include <utility>

#include "core/regular_file.h"
#include "formats/signed_manifest.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr wchar_t kNoCache[] = L"No verified update cache is available.";
constexpr wchar_t kSaveFailed[] = L"Could not save the verified update cache";
constexpr wchar_t kOlderRelease[] = L"The update server offered an older release. The update was rejected.";
constexpr wchar_t kChangedRelease[] = L"The update server changed a release without increasing its sequence.";

}  // namespace

bool LoadVerifiedCache(std::wstring_view client_root, ByteBuffer& manifest_bytes, ByteBuffer& signature,
                       UpdateError& error) {
  manifest_bytes.clear();
  signature.clear();
  const std::wstring directory = CacheDirectory(client_root);
  if (!IsRealDirectory(directory)) {
    return Refuse(error, kNoCache);
  }
  return ReadSignedPair(SignedPairIn(directory), manifest_bytes, signature, error);
}

// ReplaceWholeFile for two files: both are written before either is moved, so that a full disk leaves the old
// pair intact.
bool SaveVerifiedCache(std::wstring_view client_root, std::span<const std::byte> manifest_bytes,
                       std::span<const std::byte> signature, UpdateError& error) {
  std::wstring directory;
  if (!CreateUpdateDirectory(client_root, CacheDirectory(L""), directory, error)) {
    return false;
  }
  const SignedPairPaths pair = SignedPairIn(directory);
  const SignedPairPaths temporary = {TemporaryPath(pair.manifest), TemporaryPath(pair.signature)};
  DeleteTemporaryFile(temporary.manifest);  // left by a run that died; WriteNewFile fails if the name exists
  DeleteTemporaryFile(temporary.signature);

  bool saved = WriteNewFile(temporary.manifest, manifest_bytes, error) &&
               WriteNewFile(temporary.signature, signature, error);
  if (saved && !(MoveIntoPlace(temporary.signature, pair.signature) &&
                 MoveIntoPlace(temporary.manifest, pair.manifest))) {
    SetWindowsError(error, kSaveFailed, GetLastError());
    saved = false;
  }
  if (!saved) {
    DeleteTemporaryFile(temporary.manifest);
    DeleteTemporaryFile(temporary.signature);
  }
  return saved;
}

bool LoadTrustedState(std::wstring_view client_root, std::span<const std::byte> key_blob,
                      InstalledState& state, Manifest& manifest, ByteBuffer* manifest_bytes,
                      ByteBuffer* signature) {
  state = {};
  manifest = {};
  UpdateError unreported;
  InstalledState recorded;
  ByteBuffer cached_manifest_bytes;
  ByteBuffer cached_signature;
  Manifest cached;
  if (!LoadInstalledState(client_root, recorded, unreported) || !recorded.present ||
      !LoadVerifiedCache(client_root, cached_manifest_bytes, cached_signature, unreported) ||
      !VerifySignedManifest(cached_manifest_bytes, cached_signature, key_blob, cached, unreported) ||
      cached.sequence != recorded.sequence || !DigestsEqual(cached.digest, recorded.manifest_digest)) {
    return false;
  }
  state = std::move(recorded);
  manifest = std::move(cached);
  if (manifest_bytes != nullptr) {
    *manifest_bytes = std::move(cached_manifest_bytes);
  }
  if (signature != nullptr) {
    *signature = std::move(cached_signature);
  }
  return true;
}

bool CheckReleaseOrder(const InstalledState& trusted, const Manifest& offered, UpdateError& error) {
  if (!trusted.present || offered.sequence > trusted.sequence) {
    return true;
  }
  if (offered.sequence < trusted.sequence) {
    return Refuse(error, kOlderRelease);
  }
  if (!DigestsEqual(offered.digest, trusted.manifest_digest)) {
    return Refuse(error, kChangedRelease);
  }
  return true;
}

}  // namespace talvex
