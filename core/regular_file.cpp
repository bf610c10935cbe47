#include "core/regular_file.h"

#include "core/retry.h"

namespace talvex {
namespace {

bool IsRegular(const FileInformation& information) {
  return (information.attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) == 0 &&
         information.links == 1;
}

}  // namespace

PathKind KindOfAttributes(DWORD attributes) noexcept {
  if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    return PathKind::kReparsePoint;
  }
  return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? PathKind::kDirectory : PathKind::kFile;
}

PathKind ProbePath(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    return IsNotFound(GetLastError()) ? PathKind::kAbsent : PathKind::kUnknown;
  }
  return KindOfAttributes(attributes);
}

bool MayExist(const std::wstring& path) {
  return ProbePath(path) != PathKind::kAbsent;
}

bool IsRealDirectory(const std::wstring& path) {
  return ProbePath(path) == PathKind::kDirectory;
}

// GetFileInformationByHandle would tell all of it in one call, but asks for the volume's serial number as
// well, which nobody here needs and which costs more than the rest. Both classes work on every file system.
bool GetFileInformation(HANDLE file, FileInformation& information) noexcept {
  FILE_BASIC_INFO basic{};
  FILE_STANDARD_INFO standard{};
  if (!GetFileInformationByHandleEx(file, FileBasicInfo, &basic, sizeof(basic)) ||
      !GetFileInformationByHandleEx(file, FileStandardInfo, &standard, sizeof(standard))) {
    return false;
  }
  information = {basic.FileAttributes, standard.NumberOfLinks,
                 static_cast<std::uint64_t>(standard.EndOfFile.QuadPart)};
  return true;
}

bool CanBeRead(const std::wstring& path) {
  return OwnedHandle(CreateFileW(path.c_str(), GENERIC_READ,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                 OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr))
      .IsValid();
}

FileState InspectFile(const std::wstring& path) {
  switch (ProbePath(path)) {
    case PathKind::kAbsent:
      return FileState::kAbsent;
    case PathKind::kUnknown:
      return FileState::kUnknown;
    case PathKind::kDirectory:
    case PathKind::kReparsePoint:
      return FileState::kNotRegular;
    case PathKind::kFile:
      break;
  }
  const OwnedHandle file(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                     OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  FileInformation information;
  if (!file.IsValid() || !GetFileInformation(file.Get(), information)) {
    return FileState::kUnknown;
  }
  return IsRegular(information) ? FileState::kRegular : FileState::kUnsafeLinks;
}

bool IsRegularFile(HANDLE file) noexcept {
  FileInformation information;
  return GetFileInformation(file, information) && IsRegular(information);
}

OwnedHandle OpenRegularFileForRead(const std::wstring& path, std::uint64_t size_limit,
                                   const RegularFileMessages& messages, std::uint64_t& size,
                                   UpdateError& error) {
  size = 0;
  OwnedHandle file(
      CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                  FILE_FLAG_SEQUENTIAL_SCAN | FILE_FLAG_OPEN_REPARSE_POINT | FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.IsValid()) {
    SetWindowsError(error, messages.open_failed, GetLastError());
    return OwnedHandle();
  }
  LARGE_INTEGER found{};
  if (!GetFileSizeEx(file.Get(), &found) || found.QuadPart < 0 ||
      static_cast<std::uint64_t>(found.QuadPart) > size_limit || !IsRegularFile(file.Get())) {
    SetError(error, messages.not_regular);
    return OwnedHandle();
  }
  size = static_cast<std::uint64_t>(found.QuadPart);
  return file;
}

}  // namespace talvex
