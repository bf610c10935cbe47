#include "storage/held_directory.h"

#include <windows.h>

#include <utility>

#include "storage/client_root.h"

namespace talvex {

PathKind HoldDirectory(const std::wstring& path, OwnedHandle& held) {
  held.Reset();
  OwnedHandle directory(CreateFileW(path.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  if (!directory.IsValid()) {
    return IsNotFound(GetLastError()) ? PathKind::kAbsent : PathKind::kUnknown;
  }
  FILE_BASIC_INFO information{};  // the one class with attributes that every file system supports
  if (!GetFileInformationByHandleEx(directory.Get(), FileBasicInfo, &information, sizeof(information))) {
    return PathKind::kUnknown;
  }
  const PathKind kind = KindOfAttributes(information.FileAttributes);
  if (kind == PathKind::kDirectory) {
    held = std::move(directory);
  }
  return kind;
}

PathKind HoldParentOf(const std::wstring& path, RetrySchedule& schedule, OwnedHandle& held) {
  const std::wstring parent(ParentOfRelativePath(path));
  return ProbeWithRetry(schedule, [&] { return HoldDirectory(parent, held); });
}

}  // namespace talvex
