#include "core/whole_file.h"

#include <algorithm>
#include <limits>

namespace talvex {
namespace {

constexpr RegularFileMessages kReadMessages = {L"Could not open file",
                                               L"The file is too large or is not a regular file."};
constexpr std::wstring_view kReadIncomplete = L"Could not read the complete file.";
constexpr std::wstring_view kCreateFailed = L"Could not create file";
constexpr std::wstring_view kWriteFailed = L"Could not write file";
constexpr std::wstring_view kFlushFailed = L"Could not flush file";

DWORD NextPiece(std::size_t remaining) {
  return static_cast<DWORD>(std::min(remaining, kFilePieceSize));
}

}  // namespace

bool IsRegularFile(HANDLE file) noexcept {
  BY_HANDLE_FILE_INFORMATION information{};
  return GetFileInformationByHandle(file, &information) &&
         (information.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) == 0 &&
         information.nNumberOfLinks == 1;
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

bool ReadWholeFile(const std::wstring& path, std::uint32_t size_limit, ByteBuffer& bytes,
                   UpdateError& error) {
  bytes.clear();
  std::uint64_t size = 0;
  const OwnedHandle file = OpenRegularFileForRead(path, size_limit, kReadMessages, size, error);
  if (!file.IsValid()) {
    return false;
  }
  bytes.resize(static_cast<std::size_t>(size));  // at most the 32-bit limit
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    DWORD read = 0;
    if (!ReadFile(file.Get(), bytes.data() + filled, NextPiece(bytes.size() - filled), &read, nullptr) ||
        read == 0) {
      bytes.clear();
      return Refuse(error, kReadIncomplete);
    }
    filled += read;
  }
  return true;
}

bool WriteNewFile(const std::wstring& path, std::span<const std::byte> bytes, UpdateError& error) {
  OwnedHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                               FILE_FLAG_WRITE_THROUGH | FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.IsValid()) {
    SetWindowsError(error, kCreateFailed, GetLastError());
    return false;
  }
  // A half-written file must not keep the name: the next writer would find it taken.
  const auto give_up = [&](std::wstring_view prefix, DWORD code) {
    SetWindowsError(error, prefix, code);
    file.Reset();
    DeleteFileW(path.c_str());
    return false;
  };
  while (!bytes.empty()) {
    const DWORD piece = NextPiece(bytes.size());
    DWORD written = 0;
    if (!WriteFile(file.Get(), bytes.data(), piece, &written, nullptr) || written != piece) {
      return give_up(kWriteFailed, GetLastError());
    }
    bytes = bytes.subspan(piece);
  }
  if (!FlushFileBuffers(file.Get())) {
    return give_up(kFlushFailed, GetLastError());
  }
  return true;
}

bool ReplaceWholeFile(const std::wstring& path, const std::wstring& temporary_path,
                      std::span<const std::byte> bytes, std::wstring_view move_failed, MoveFailureText form,
                      UpdateError& error) {
  DeleteFileW(temporary_path.c_str());  // left by a run that died; WriteNewFile refuses a name that exists
  if (!WriteNewFile(temporary_path, bytes, error)) {
    return false;
  }
  if (!MoveFileExW(temporary_path.c_str(), path.c_str(),
                   MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    if (form == MoveFailureText::kSentence) {
      SetError(error, move_failed);
    } else {
      SetWindowsError(error, move_failed, GetLastError());  // read before DeleteFileW can change it
    }
    DeleteFileW(temporary_path.c_str());
    return false;
  }
  return true;
}

}  // namespace talvex
