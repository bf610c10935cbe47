#include "client/client_directory.h"

#include <windows.h>

#include "client/final_path.h"
#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "storage/client_root.h"
#include "storage/held_directory.h"

namespace talvex::client {
namespace {

constexpr wchar_t kNotLocal[] = L"Talvex cannot be updated on a network drive.";
constexpr wchar_t kDriveRoot[] = L"Talvex cannot be updated at the top of a drive.";

std::wstring ProgramDirectory() {
  const std::wstring path = RunningProgramPath();
  // With its backslash, because a drive's name alone stands for the current directory of that drive.
  return path.substr(0, path.rfind(L'\\') + 1);
}

// The path by its drive, without the prefix \\?\ in front of a drive or a volume, with which a program may
// have been started.
std::wstring WithoutPrefix(const std::wstring& path) {
  if (!path.starts_with(L"\\\\?\\")) {
    return path;
  }
  if (path.size() > 5 && path[5] == L':') {
    return path.substr(4);
  }
  OwnedHandle directory;
  const std::wstring true_path =
      HoldDirectory(path, directory) == PathKind::kDirectory ? TruePath(directory.Get()) : std::wstring();
  return true_path.empty() ? path : true_path;
}

bool IsOnNetwork(const std::wstring& root) {
  if (root.starts_with(L"\\\\") || GetDriveTypeW(root.substr(0, kDriveRootLength).c_str()) == DRIVE_REMOTE) {
    return true;
  }
  OwnedHandle directory;  // a link above it may lead to a share
  return HoldDirectory(root, directory) == PathKind::kDirectory && IsOnShare(directory.Get());
}

}  // namespace

bool FindClientRoot(const wchar_t* given, std::wstring& client_root, UpdateError& error) {
  client_root = ResolveClientRoot(WithoutPrefix(given != nullptr ? given : ProgramDirectory()), error);
  if (client_root.empty()) {
    return false;
  }
  if (IsOnNetwork(client_root)) {
    return Refuse(error, kNotLocal);
  }
  if (client_root.size() <= kDriveRootLength) {
    return Refuse(error, kDriveRoot);
  }
  return RejectReparsePoints(client_root, L"", LastComponent::kChecked, error);
}

}  // namespace talvex::client
