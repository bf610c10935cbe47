#pragma once

// Logs what the client does as plain lines of UTF-8, to the output it was started with, if any, and to the
// end of the file named in the environment. The environment passes from the client through the helper to the
// restarted client, so one file records the whole update.

#include <string_view>

namespace talvex::example {

// Names the log file. Keep it out of the client directory: an update replaces files there.
inline constexpr wchar_t kLogVariable[] = L"TALVEX_CLIENT_LOG";

// Gets the output that this process was started with. Call it before anything else opens a handle: the
// restarted client may be given a value that is not yet a handle of its own, and later becomes that of
// another file.
void OpenLog();

// Writes one line; a line that cannot be written is lost.
void LogLine(std::wstring_view line);

}  // namespace talvex::example
