#include "core/regular_file.h"
#include "core/whole_file.h"
#include "publisher/commands.h"
#include "publisher/release_check.h"
#include "publisher/release_verification.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr wchar_t kFinishedAlready[] = L"exists already. To replace it, delete it first.";
constexpr wchar_t kMoveFailed[] = L"Could not put the signature in its place";

}  // namespace

int FinishRelease(const FinishOptions& options) {
  Findings findings;
  ReleaseKeys keys;
  const std::wstring directory = ExistingDirectory(options.directory, findings);
  if (directory.empty() || !LoadKeys(options.common, keys, findings)) {
    return Conclude(options.common, findings, {});
  }
  const SignedPairPaths finished = SignedPairIn(directory);
  if (MayExist(finished.signature)) {
    findings.AddError(finished.signature, kFinishedAlready);
    return Conclude(options.common, findings, {});
  }
  SignedManifest release;
  VerifyRelease({finished.manifest, options.signature}, FilesDirectory(directory), keys,
                options.common.allowances, release, findings);
  // Order: the signature last, because with it the directory is a release that can be uploaded.
  UpdateError error;
  if (findings.Pass(options.common.allow_warnings) &&
      !ReplaceWholeFile(finished.signature, TemporaryPath(finished.signature), release.signature, kMoveFailed,
                        MoveFailureText::kPrefixOfWindowsText, error)) {
    findings.AddError(finished.signature, error.Message());
  }
  return Conclude(options.common, findings, L"Finished " + Describe(release.manifest));
}

}  // namespace talvex
