#pragma once

// What the client does, as plain lines of UTF-8: to the output it was started with, if any, and to the end of
// the file that the environment names. The environment goes from the client through the helper to the
// restarted client, so one file tells the whole story of an update.

#include <string_view>

namespace talvex::example {

// Names the log file. Keep it out of the client directory: an update replaces what is in there.
inline constexpr wchar_t kLogVariable[] = L"TALVEX_CLIENT_LOG";

// Looks once at the output this process was started with. Call it before anything else opens a handle: the
// restarted client may be given a value that is no handle of its own yet, and later is that of another file.
void OpenLog();

// Writes one line; what cannot be written is lost.
void LogLine(std::wstring_view line);

}  // namespace talvex::example
