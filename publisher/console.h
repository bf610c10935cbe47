#pragma once

// Lines for the release engineer: UTF-16 on a console, UTF-8 into a file or pipe, whatever the code page is.

#include <string_view>

namespace talvex {

// Standard output is for results, standard error for progress and errors.
enum class Stream { kOutput, kError };

// Writes `line` and a line end. What cannot be written (a closed pipe) is lost. A name that is not valid
// UTF-16 is shown with replacement characters: an error must name the file that it is about.
void WriteLine(Stream stream, std::wstring_view line);

}  // namespace talvex
