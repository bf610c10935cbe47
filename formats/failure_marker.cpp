#include "formats/failure_marker.h"

#include <string>

#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/text_lines.h"
#include "storage/client_root.h"

namespace talvex {
namespace {

constexpr std::wstring_view kTemporarySuffix = L".new";
constexpr std::wstring_view kSaveFailed = L"Could not save the update failure marker.";

}  // namespace

bool SaveFailureMarker(std::wstring_view client_root, const Sha256Digest& manifest_digest,
                       UpdateError& error) {
  const std::wstring path = JoinPath(client_root, kFailureMarkerFileName);
  const std::string text = WideToUtf8(DigestToHex(manifest_digest)) + "\n";
  return ReplaceWholeFile(path, path + std::wstring(kTemporarySuffix), AsBytes(text), kSaveFailed,
                          MoveFailureText::kSentence, error);
}

}  // namespace talvex
