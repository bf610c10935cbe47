#include <string>

#include "publisher/commands.h"
#include "publisher/path_room.h"
#include "publisher/release_check.h"
#include "publisher/release_verification.h"
#include "storage/update_layout.h"

namespace talvex {

int VerifyCommand(const VerifyOptions& options) {
  Findings findings;
  ReleaseKeys keys;
  SignedManifest release;
  const std::wstring directory = ExistingDirectory(options.directory, findings);
  if (!directory.empty() && LoadKeys(options.common, keys, findings)) {
    VerifyRelease(SignedPairIn(directory), FilesDirectory(directory), keys, options.common.allowances,
                  release, findings);
  }
  JsonWriter json = BeginDocument(L"verify");
  if (!release.manifest.entries.empty()) {
    WriteDescription(release.manifest, json);
    json.Key(L"longestClientDirectory");
    json.Number(LongestClientDirectory(release.manifest));
  }
  return Conclude(options.common, findings, L"OK " + Describe(release.manifest), &json);
}

}  // namespace talvex
