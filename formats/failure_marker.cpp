#include "formats/failure_marker.h"

#include <cstdint>
#include <string>

#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/text_lines.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr std::uint32_t kMarkerSize = kDigestHexLength + 1;  // the digest and LF

constexpr wchar_t kSaveFailed[] = L"Could not save the update failure marker.";

}  // namespace

bool SaveFailureMarker(std::wstring_view client_root, const Sha256Digest& manifest_digest,
                       UpdateError& error) {
  const std::wstring path = FailureMarkerPath(client_root);
  const std::string text = WideToUtf8(DigestToHex(manifest_digest)) + "\n";
  return ReplaceWholeFile(path, TemporaryPath(path), AsBytes(text), kSaveFailed, MoveFailureText::kSentence,
                          error);
}

bool LoadFailureMarker(std::wstring_view client_root, Sha256Digest& manifest_digest) {
  ByteBuffer bytes;
  UpdateError unreported;
  return ReadWholeFile(FailureMarkerPath(client_root), kMarkerSize, bytes, unreported) &&
         ParseHexDigest(AsText(bytes).substr(0, kDigestHexLength), manifest_digest);
}

bool IsMarkedAsFailed(std::wstring_view client_root, const Sha256Digest& manifest_digest) {
  Sha256Digest failed;
  return LoadFailureMarker(client_root, failed) && DigestsEqual(failed, manifest_digest);
}

}  // namespace talvex
