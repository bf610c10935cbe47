#include "formats/verified_cache.h"

#include <windows.h>

#include <string>
#include <utility>

#include "core/regular_file.h"
#include "formats/signed_manifest.h"
#include "storage/client_root.h"

namespace talvex {
namespace {

constexpr std::wstring_view kTemporarySuffix = L".new";

constexpr std::wstring_view kNoCache = L"No verified update cache is available.";
constexpr std::wstring_view kSaveFailed = L"Could not save the verified update cache";
constexpr std::wstring_view kOlderRelease =
    L"The update server offered an older release. The update was rejected.";
constexpr std::wstring_view kChangedRelease =
    L"The update server changed a release without increasing its sequence.";

struct CacheFile {
  CacheFile(const std::wstring& directory, std::wstring_view name)
      : path(JoinPath(directory, name)), temporary_path(path + std::wstring(kTemporarySuffix)) {}

  std::wstring path;
  std::wstring temporary_path;
};

}  // namespace

bool LoadVerifiedCache(std::wstring_view client_root, ByteBuffer& manifest_bytes, ByteBuffer& signature,
                       UpdateError& error) {
  manifest_bytes.clear();
  signature.clear();
  const std::wstring directory = JoinPath(client_root, kCacheDirectoryName);
  if (!IsRealDirectory(directory)) {
    return Refuse(error, kNoCache);
  }
  if (!ReadWholeFile(JoinPath(directory, kManifestFileName), kManifestSizeLimit, manifest_bytes, error) ||
      !ReadWholeFile(JoinPath(directory, kSignatureFileName), kSignatureSizeLimit, signature, error)) {
    manifest_bytes.clear();
    return false;
  }
  return true;
}

// Two files move here where ReplaceWholeFile moves one: both are written before either is moved, so that a
// full disk leaves the old pair whole.
bool SaveVerifiedCache(std::wstring_view client_root, std::span<const std::byte> manifest_bytes,
                       std::span<const std::byte> signature, UpdateError& error) {
  std::wstring directory;
  if (!CreateUpdateDirectory(client_root, kCacheDirectoryName, directory, error)) {
    return false;
  }
  const CacheFile manifest_file(directory, kManifestFileName);
  const CacheFile signature_file(directory, kSignatureFileName);
  DeleteTemporaryFile(manifest_file.temporary_path);  // left by a run that died; its name has to be free
  DeleteTemporaryFile(signature_file.temporary_path);

  bool saved = WriteNewFile(manifest_file.temporary_path, manifest_bytes, error) &&
               WriteNewFile(signature_file.temporary_path, signature, error);
  if (saved && !(MoveIntoPlace(signature_file.temporary_path, signature_file.path) &&
                 MoveIntoPlace(manifest_file.temporary_path, manifest_file.path))) {
    SetWindowsError(error, kSaveFailed, GetLastError());
    saved = false;
  }
  if (!saved) {
    DeleteTemporaryFile(manifest_file.temporary_path);
    DeleteTemporaryFile(signature_file.temporary_path);
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
