#pragma once

// Clears the read-only attribute of a client file that the helper is going to change. A read-only file can be
// moved away, but neither replaced nor removed, and its copy could not be restored for good: one attribute
// that a player or a tool has set would stop an update or, worse, its rollback. The path is relative to the
// client root; what cannot be changed here, the helper rejects.

#include <string>
#include <string_view>

namespace talvex::client {

void ClearReadOnly(const std::wstring& client_root, std::wstring_view relative_path);

}  // namespace talvex::client
