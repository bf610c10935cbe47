#include "client/read_only_files.h"

#include <windows.h>

#include "core/update_error.h"
#include "storage/client_root.h"

namespace talvex::client {

void ClearReadOnly(const std::wstring& client_root, std::wstring_view relative_path) {
  std::wstring path;
  UpdateError unreported;
  if (ResolveCheckedPath(client_root, relative_path, path, unreported)) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY) != 0) {
      SetFileAttributesW(path.c_str(), attributes & ~DWORD{FILE_ATTRIBUTE_READONLY});
    }
  }
}

}  // namespace talvex::client
