#include "examples/client/release_offer.h"

#include <cstdint>
#include <string_view>

#include "core/publisher_key.h"
#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/installed_state.h"
#include "formats/text_lines.h"
#include "formats/verified_cache.h"
#include "storage/update_layout.h"

namespace talvex::example {
namespace {

constexpr std::uint32_t kFailureMarkerSize = kDigestHexLength + 1;  // the digest and LF
constexpr wchar_t kFailedBefore[] = L"This release could not start here before. A newer release is needed.";

// The helper writes the marker when it rolls a release back. A marker that cannot be read counts as none.
bool IsMarkedAsFailed(const std::wstring& client_root, const Sha256Digest& manifest_digest) {
  ByteBuffer bytes;
  UpdateError unreported;
  Sha256Digest failed;
  return ReadWholeFile(FailureMarkerPath(client_root), kFailureMarkerSize, bytes, unreported) &&
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
  return LoadSignedManifest(SignedPairIn(directory), PublisherKeyBlob(), offer.release, error) &&
         CheckReleaseOrder(state, offer.release.manifest, error) &&
         (!IsMarkedAsFailed(client_root, offer.release.manifest.digest) || Refuse(error, kFailedBefore));
}

}  // namespace talvex::example
