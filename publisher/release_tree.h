#pragma once

// The files below a directory, as far as a release can contain them: of a client directory that is to be
// published, or of the folder files of a release.

#include <cstdint>
#include <string>
#include <vector>

#include "core/update_error.h"
#include "publisher/findings.h"

namespace talvex {

struct ReleaseFile {
  std::string path;              // relative, with "/", as the manifest writes it
  std::wstring normalised_path;  // the same with "\"
  std::wstring full_path;
  std::uint64_t size = 0;  // bytes
};

struct ReleaseTree {
  std::vector<ReleaseFile> files;  // by path, byte by byte: the same tree gives the same manifest everywhere
  std::vector<std::wstring> skipped;  // the updater's own files and directories at the top
};

// What is asked of the files themselves while they are listed.
enum class FileCheck {
  kEachFile,   // each is opened: no links, one hard link, 1 byte to 8 GiB
  kNamesOnly,  // whoever reads them will see
};

// Lists `directory` (absolute) recursively. Directories are not listed: a release consists of files. Each
// file or directory that a release cannot contain is an error among `findings`: names outside the path rules,
// paths that are too long to be staged, on case-sensitive file systems paths that differ only in case, links,
// and what `check` says. False when a directory cannot be read:
//   "Could not list " + path + ": " + Windows text
[[nodiscard]] bool ListReleaseFiles(const std::wstring& directory, FileCheck check, ReleaseTree& tree,
                                    Findings& findings, UpdateError& error);

// The sum of the files' sizes, in bytes.
[[nodiscard]] std::uint64_t TotalSize(const ReleaseTree& tree);

}  // namespace talvex
