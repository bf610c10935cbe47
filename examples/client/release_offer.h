#pragma once

// A release that was downloaded, and whether it may be installed here: a folder with manifest.txt,
// manifest.sig and the described files below files\.

#include <string>

#include "core/update_error.h"
#include "formats/manifest.h"
#include "formats/signed_manifest.h"

namespace talvex::example {

struct ReleaseOffer {
  std::wstring directory;  // of the release
  SignedManifest release;
  bool has_installed = false;
  Manifest installed;  // the release installed now; empty when none can be verified
};

// Reads the release in `directory`, verifies that it is the publisher's, and rejects what the helper would
// reject or what is known not to start. The client checks all this itself, because the helper reports it only
// after the client has exited. Messages: those of LoadSignedManifest and CheckReleaseOrder, and
//   "This release could not start here before. A newer release is needed."
[[nodiscard]] bool LoadReleaseOffer(const std::wstring& client_root, const std::wstring& directory,
                                    ReleaseOffer& offer, UpdateError& error);

}  // namespace talvex::example
