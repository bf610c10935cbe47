#include "examples/client/release_offer.h"

#include <cstdint>
#include <string_view>

#include "core/publisher_key.h"
#include "core/text_encoding.h"
#include "formats/failure_marker.h"
#include "formats/installed_state.h"
#include "formats/signed_manifest.h"
#include "formats/text_lines.h"
#include "formats/verified_cache.h"
#include "storage/client_root.h"

namespace talvex::example {
namespace {

constexpr std::uint32_t kFailureMarkerSize = kDigestHexLength + 1;  // the digest and LF
constexpr std::wstring_view kFailedBefore =
    L"This release could not start here before. A newer release is needed.";

// The helper left the marker when it rolled a release back. A marker that cannot be read marks nothing.
bool IsMarkedAsFailed(const std::wstring& client_root, const Sha256Digest& manifest_digest) {
  ByteBuffer bytes;
  UpdateError unreported;
  Sha256Digest failed;
  return ReadWholeFile(JoinPath(client_root, kFailureMarkerFileName), kFailureMarkerSize, bytes,
                       unreported) &&
         ParseHexDigest(AsText(bytes).substr(0, kDigestHexLength), failed) &&
         DigestsEqual(failed, manifest_digest);
}

}  // namespace

bool LoadReleaseOffer(const std::wstring& client_root, const std::wstring& directory, ReleaseOffer& offer,
                      UpdateError& error) {
  offer = {};
  offer.directory = directory;
  InstalledState state;
  offer.has_installed = LoadTrustedState(client_root, PublisherKeyBlob(), state, offer.installed);
  if (!ReadWholeFile(JoinPath(directory, kManifestFileName), kManifestSizeLimit, offer.manifest_bytes,
                     error) ||
      !ReadWholeFile(JoinPath(directory, kSignatureFileName), kSignatureSizeLimit, offer.signature, error) ||
      !VerifySignedManifest(offer.manifest_bytes, offer.signature, PublisherKeyBlob(), offer.manifest,
                            error) ||
      !CheckReleaseOrder(state, offer.manifest, error)) {
    return false;
  }
  return IsMarkedAsFailed(client_root, offer.manifest.digest) ? Refuse(error, kFailedBefore) : true;
}

}  // namespace talvex::example
