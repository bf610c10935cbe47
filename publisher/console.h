#pragma once

// Lines for the release engineer: UTF-16 on a console, UTF-8 into a file or pipe, whatever the code page is.

#include <string>
#include <string_view>

namespace talvex {

// Standard output is for results, standard error for progress and errors.
enum class Stream { kOutput, kError };

// Writes `line` and a line end. What cannot be written (a closed pipe, a full disk) is lost, which
// HasLostOutput tells; without anybody who listens nothing is. File names reach the terminal through here, so
// whatever could steer it is written as \uXXXX: control characters, line ends included, marks that change the
// direction of writing, lone surrogates.
void WriteLine(Stream stream, std::wstring_view line);

// WriteLine for every line of `text`, which LF separates: for texts of our own.
void WriteLines(Stream stream, std::wstring_view text);

// Whether something could not be written.
[[nodiscard]] bool HasLostOutput();

[[nodiscard]] bool IsConsole(Stream stream);

}  // namespace talvex
