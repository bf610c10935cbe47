#pragma once

// Copies the files of a client directory into a release and describes them, reading each of them once: what
// the manifest describes and what was checked are the bytes that were copied, whatever happens to the
// originals.

#include <string>
#include <string_view>

#include "core/update_error.h"
#include "formats/manifest.h"
#include "publisher/release_check.h"
#include "publisher/release_tree.h"

namespace talvex {

// Copies the files of `tree` to their relative paths below FilesDirectory(`directory`), which must not have
// them yet, and appends an entry for each to `draft`. `programs` receives the bytes of the two programs. A
// failure leaves what was copied so far. Messages, after the file's path and ": ": those of
// CreateUpdateDirectory, OpenFileForHashing, Sha256OfBuffer and WriteReleaseFile, and
//   "The path of its copy would be too long. Name a directory with a shorter path for the release."
//   "Could not read the file: " + Windows text
//   "The file changed while it was being published."
[[nodiscard]] bool CopyReleaseFiles(const ReleaseTree& tree, const std::wstring& directory, Manifest& draft,
                                    ReleasePrograms& programs, UpdateError& error);

// Creates `path` with `text`. Unlike WriteNewFile it does not wait for the disk, which would write out all
// the copies first: what a power cut damages here, the command finish finds. Messages:
//   "Could not create a file of the release: " + Windows text
//   "Could not write a file of the release: " + Windows text
[[nodiscard]] bool WriteReleaseFile(const std::wstring& path, std::string_view text, UpdateError& error);

}  // namespace talvex
