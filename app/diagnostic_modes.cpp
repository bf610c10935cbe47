#include "app/diagnostic_modes.h"

#include <string>

#include "app/reporting.h"
#include "core/exit_code.h"
#include "core/publisher_key.h"
#include "core/text_encoding.h"
#include "formats/relative_path.h"
#include "formats/signed_manifest.h"

namespace talvex {
namespace {

constexpr int kVerifyManifestArguments = 4;
constexpr int kValidatePathArguments = 3;

}  // namespace

int RunVerifyManifest(int argument_count, const wchar_t* const* arguments) {
  if (argument_count != kVerifyManifestArguments) {
    return kExitUsage;
  }
  SignedManifest release;
  UpdateError error;
  if (!LoadSignedManifest({arguments[2], arguments[3]}, PublisherKeyBlob(), release, error)) {
    WriteConsoleLine(kErrorPrefix + error.Message());
    return kExitFailed;
  }
  const Manifest& manifest = release.manifest;
  WriteConsoleLine(L"OK release=" + Utf8ToWide(manifest.release) + L" sequence=" +
                   std::to_wstring(manifest.sequence) + L" files=" +
                   std::to_wstring(manifest.entries.size()));
  return kExitDone;
}

int RunValidatePath(int argument_count, const wchar_t* const* arguments) {
  if (argument_count != kValidatePathArguments) {
    return kExitUsage;
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
