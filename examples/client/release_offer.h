#pragma once

// A release that was downloaded, and whether it may be installed here: a folder with manifest.txt,
// manifest.sig and the described files below files\.

#include <string>

#include "core/update_error.h"
#include "core/whole_file.h"
#include "formats/manifest.h"

namespace talvex::example {

struct ReleaseOffer {
  std::wstring directory;  // of the release
  ByteBuffer manifest_bytes;
  ByteBuffer signature;
  Manifest manifest;
  bool has_installed = false;
  Manifest installed;  // the release installed now; empty when none can be proved
};

// Reads the release in `directory`, proves that it is the publisher's, and refuses what the helper would
// refuse or what is known not to start. The client asks all this itself, because the helper answers only when
// the client is gone. Messages: those of ReadWholeFile, VerifySignedManifest and CheckReleaseOrder, and
//   "This release could not start here before. A newer release is needed."
[[nodiscard]] bool LoadReleaseOffer(const std::wstring& client_root, const std::wstring& directory,
                                    ReleaseOffer& offer, UpdateError& error);

}  // namespace talvex::example
