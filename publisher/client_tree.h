#pragma once

// The files of a client directory that a release would manage.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/update_error.h"

namespace talvex {

struct ClientFile {
  std::string path;  // relative, with "/", as the manifest writes it
  std::wstring full_path;
  std::uint64_t size = 0;  // bytes
};

struct ClientTree {
  std::vector<ClientFile> files;  // by path, byte by byte: the same tree gives the same manifest everywhere
  std::vector<std::wstring> skipped;  // the updater's own files and directories at the top
  // "path: reason", one for each file or directory that a release cannot contain. All of them, so that a tree
  // can be corrected at once.
  std::vector<std::wstring> refusals;
};

// Lists `client_directory` (absolute) recursively. Directories are not listed: a release consists of files.
// False when a directory cannot be read, with a message that names it; rejected files are not a failure here.
[[nodiscard]] bool ListClientFiles(const std::wstring& client_directory, ClientTree& tree,
                                   UpdateError& error);

// The longest client directory, in characters, in which every file of `tree` can be staged: full paths are
// limited, and that of a staged file is the longest.
[[nodiscard]] std::size_t LongestClientDirectory(const ClientTree& tree);

}  // namespace talvex
