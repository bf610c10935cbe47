#include "client/final_path.h"

#include <string_view>

#include "storage/client_root.h"

namespace talvex::client {
namespace {

constexpr std::wstring_view kLocalPrefix = L"\\\\?\\";
constexpr std::wstring_view kServerPrefix = L"\\\\?\\UNC\\";

}  // namespace

std::wstring FinalPath(HANDLE file, DWORD flags) {
  std::wstring path(kPathCapacity, L'\0');
  const DWORD length = GetFinalPathNameByHandleW(file, path.data(), kPathCapacity, flags);
  path.resize(length < kPathCapacity ? length : 0);
  return path;
}

std::wstring TruePath(HANDLE file) {
  std::wstring path = FinalPath(file, VOLUME_NAME_DOS);
  // Programs are not started by the long form if the short one will do.
  if (path.size() >= kLocalPrefix.size() + MAX_PATH) {
    return path;
  }
  if (path.starts_with(kServerPrefix)) {
    return L"\\\\" + path.substr(kServerPrefix.size());
  }
  return path.starts_with(kLocalPrefix) ? path.substr(kLocalPrefix.size()) : path;
}

bool IsOnShare(HANDLE file) {
  return FinalPath(file, VOLUME_NAME_DOS).starts_with(kServerPrefix);
}

}  // namespace talvex::client
