#include "storage/client_root.h"

#include <windows.h>

#include <cstddef>
#include <memory>

#include "core/ascii_case.h"
#include "core/regular_file.h"

namespace talvex {
namespace {

// A full path below the root must be shorter: the classic Windows limit, so that the client and every other
// program can open what the helper installs.
constexpr std::size_t kFullPathLimit = 260;

constexpr wchar_t kRootEmpty[] = L"The client directory is empty.";
constexpr wchar_t kRootUnresolved[] = L"Could not resolve the client directory";
constexpr wchar_t kPathUnresolved[] = L"Could not resolve an update path";
constexpr wchar_t kPathEscapes[] = L"An update path escapes the client directory or is too long.";
constexpr wchar_t kRootUnsafe[] = L"The client directory is missing or is a reparse point.";
constexpr wchar_t kReparsePoint[] = L"An update path contains a reparse point.";
constexpr wchar_t kCreateFailed[] = L"Could not create an update directory";
constexpr wchar_t kDirectoryUnsafe[] = L"An update directory is unsafe.";

bool IsSeparator(wchar_t unit) {
  return unit == L'\\' || unit == L'/';
}

// The absolute form of `path`; empty, with `error` set, when there is none that fits the buffer.
std::wstring AbsolutePath(const std::wstring& path, const wchar_t* message, UpdateError& error) {
  const auto buffer = std::make_unique_for_overwrite<wchar_t[]>(kPathCapacity);
  const DWORD length = GetFullPathNameW(path.c_str(), kPathCapacity, buffer.get(), nullptr);
  if (length == 0 || length >= kPathCapacity) {
    SetWindowsError(error, message, GetLastError());
    return {};
  }
  return std::wstring(buffer.get(), length);
}

bool LiesInside(std::wstring_view full_path, std::wstring_view root) {
  if (full_path.size() <= root.size()) {
    return EqualIgnoringAsciiCase(full_path, root);
  }
  return EqualIgnoringAsciiCase(full_path.substr(0, root.size()), root) && full_path[root.size()] == L'\\';
}

// Cuts the next component off the front of `rest`.
std::wstring_view ConsumeComponent(std::wstring_view& rest) {
  const std::size_t end = rest.find(L'\\');
  const std::wstring_view component = rest.substr(0, end);
  rest.remove_prefix(end == std::wstring_view::npos ? rest.size() : end + 1);
  return component;
}

}  // namespace

std::wstring ResolveClientRoot(std::wstring_view client_directory, UpdateError& error) {
  if (client_directory.empty()) {
    SetError(error, kRootEmpty);
    return {};
  }
  std::wstring root = AbsolutePath(std::wstring(client_directory), kRootUnresolved, error);
  while (root.size() > kDriveRootLength && IsSeparator(root.back())) {
    root.pop_back();
  }
  return root;
}

std::wstring JoinPath(std::wstring_view base, std::wstring_view name) {
  std::wstring joined(base);
  if (!base.empty() && !name.empty() && !IsSeparator(base.back())) {
    joined += L'\\';
  }
  joined += name;
  return joined;
}

bool ResolveUpdatePath(std::wstring_view client_directory, std::wstring_view relative_path,
                       std::wstring& full_path, UpdateError& error) {
  full_path.clear();
  const std::wstring root = ResolveClientRoot(client_directory, error);
  if (root.empty()) {
    return false;
  }
  full_path = AbsolutePath(JoinPath(root, relative_path), kPathUnresolved, error);
  if (full_path.empty()) {
    return false;
  }
  if (!LiesInside(full_path, root) || full_path.size() >= kFullPathLimit) {
    full_path.clear();
    return Refuse(error, kPathEscapes);
  }
  return true;
}

bool RejectReparsePoints(std::wstring_view client_directory, std::wstring_view relative_path,
                         LastComponent last, UpdateError& error) {
  std::wstring current = ResolveClientRoot(client_directory, error);
  if (current.empty()) {
    return false;
  }
  if (!IsRealDirectory(current)) {
    return Refuse(error, kRootUnsafe);
  }
  // The components as written, not those of the normalised path: a link must be found where it is.
  while (!relative_path.empty()) {
    current = JoinPath(current, ConsumeComponent(relative_path));
    if (relative_path.empty() && last == LastComponent::kUnchecked) {
      return true;
    }
    if (ProbePath(current) == PathKind::kReparsePoint) {
      return Refuse(error, kReparsePoint);
    }
  }
  return true;
}

bool ResolveCheckedPath(std::wstring_view client_directory, std::wstring_view relative_path,
                        std::wstring& full_path, UpdateError& error) {
  if (!ResolveUpdatePath(client_directory, relative_path, full_path, error)) {
    return false;
  }
  if (!RejectReparsePoints(client_directory, relative_path, LastComponent::kChecked, error)) {
    full_path.clear();
    return false;
  }
  return true;
}

bool CreateUpdateDirectory(std::wstring_view client_directory, std::wstring_view relative_path,
                           std::wstring& full_path, UpdateError& error) {
  if (!ResolveCheckedPath(client_directory, relative_path, full_path, error)) {
    return false;
  }
  std::wstring current = ResolveClientRoot(client_directory, error);
  if (current.empty()) {
    return false;
  }
  while (!relative_path.empty()) {
    const std::wstring_view component = ConsumeComponent(relative_path);
    if (component.empty()) {
      continue;
    }
    current = JoinPath(current, component);
    if (!CreateDirectoryW(current.c_str(), nullptr)) {
      const DWORD code = GetLastError();
      if (code != ERROR_ALREADY_EXISTS) {
        return RefuseWithWindowsError(error, kCreateFailed, code);
      }
    }
    // Checked although it was just created: between the two calls somebody may have put a link in its place.
    if (!IsRealDirectory(current)) {
      return Refuse(error, kDirectoryUnsafe);
    }
  }
  return true;
}

std::wstring RunningProgramPath() {
  const auto buffer = std::make_unique_for_overwrite<wchar_t[]>(kPathCapacity);
  const DWORD length = GetModuleFileNameW(nullptr, buffer.get(), kPathCapacity);
  return length < kPathCapacity ? std::wstring(buffer.get(), length) : std::wstring();
}

std::wstring_view ParentOfRelativePath(std::wstring_view relative_path) noexcept {
  const std::size_t separator = relative_path.find_last_of(L"\\/");
  return separator == std::wstring_view::npos ? std::wstring_view() : relative_path.substr(0, separator);
}

}  // namespace talvex
