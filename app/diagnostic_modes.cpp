#include "app/diagnostic_modes.h"

#include <string>

#include "app/reporting.h"
#include "core/publisher_key.h"
#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/relative_path.h"
#include "formats/signed_manifest.h"

namespace talvex {
namespace {

constexpr int kVerifyManifestArguments = 4;
constexpr int kValidatePathArguments = 3;

}  // namespace

int RunVerifyManifest(int argument_count, const wchar_t* const* arguments) {
  if (argument_count != kVerifyManifestArguments) {
    return kExitUnusable;
  }
  ByteBuffer manifest_bytes;
  ByteBuffer signature;
  Manifest manifest;
  UpdateError error;
  if (!ReadWholeFile(arguments[2], kManifestSizeLimit, manifest_bytes, error) ||
      !ReadWholeFile(arguments[3], kSignatureSizeLimit, signature, error) ||
      !VerifySignedManifest(manifest_bytes, signature, PublisherKeyBlob(), manifest, error)) {
    WriteConsoleLine(L"ERROR: " + error.Message());
    return kExitFailed;
  }
  WriteConsoleLine(L"OK release=" + Utf8ToWide(manifest.release) + L" sequence=" +
                   std::to_wstring(manifest.sequence) + L" files=" +
                   std::to_wstring(manifest.entries.size()));
  return kExitDone;
}

int RunValidatePath(int argument_count, const wchar_t* const* arguments) {
  if (argument_count != kValidatePathArguments) {
    return kExitUnusable;
  }
  std::wstring normalised_path;
  UpdateError error;
  if (!ValidateRelativePath(WideToUtf8(arguments[2]), normalised_path, error)) {
    WriteConsoleLine(L"REJECTED: " + error.Message());
    return kExitFailed;
  }
  WriteConsoleLine(L"OK: " + normalised_path);
  return kExitDone;
}

}  // namespace talvex
