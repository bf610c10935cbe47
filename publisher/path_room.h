#pragma once

// How much room the paths of a release leave for the client directory's own path. Full paths are limited, and
// that of a staged file is the longest that an update makes.

#include <cstddef>
#include <string>
#include <string_view>

#include "formats/manifest.h"

namespace talvex {

// Windows' limits for the full path of a file, and of a directory, which leave room for a short file name.
inline constexpr std::size_t kMaxFullPath = 259;
inline constexpr std::size_t kMaxFullDirectoryPath = 247;

// The longest path of a client directory, in characters, in which every file of `manifest` can be staged; 0
// when there is none.
[[nodiscard]] std::size_t LongestClientDirectory(const Manifest& manifest);

// The same for the result of a command: a sentence.
[[nodiscard]] std::wstring DescribeRoom(const Manifest& manifest);

// Whether the file at `relative_path` can be staged in the shortest client directory that there can be.
[[nodiscard]] bool FitsSomeClientDirectory(std::wstring_view relative_path);

}  // namespace talvex
