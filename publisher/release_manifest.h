#pragma once

// The manifest of a release, made from a client directory.

#include <cstdint>
#include <string>

#include "core/update_error.h"
#include "formats/manifest.h"
#include "publisher/client_tree.h"

namespace talvex {

// Hashes the files of `tree` into entries and writes the manifest to `path`, replacing an older one whole.
// `manifest` is the helper's own parser's reading of the written bytes: what the parser rejects is not
// written. Reports its progress on standard error every two seconds. Messages name the file that they are
// about.
[[nodiscard]] bool WriteReleaseManifest(const ClientTree& tree, const std::string& release,
                                        std::uint64_t sequence, const std::wstring& path, Manifest& manifest,
                                        UpdateError& error);

}  // namespace talvex
