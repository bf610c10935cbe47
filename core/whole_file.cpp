#include "core/whole_file.h"

#include <windows.h>

#include <algorithm>

#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "core/retry.h"

namespace talvex {
namespace {

constexpr RegularFileMessages kReadMessages = {L"Could not open file",
                                               L"The file is too large or is not a regular file."};
constexpr wchar_t kReadIncomplete[] = L"Could not read the complete file.";
constexpr wchar_t kCreateFailed[] = L"Could not create file";
constexpr wchar_t kWriteFailed[] = L"Could not write file";
constexpr wchar_t kFlushFailed[] = L"Could not flush file";

DWORD NextPiece(std::size_t remaining) {
  return static_cast<DWORD>(std::min(remaining, kFilePieceSize));
}

}  // namespace

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
  OwnedHandle file;
  RetrySchedule schedule;  // a deleted file keeps its name while a scanner still reads it
  if (!schedule.Try([&] {
        file.Reset(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                               FILE_FLAG_WRITE_THROUGH | FILE_ATTRIBUTE_NORMAL, nullptr));
        return file.IsValid();
      })) {
    return RefuseWithWindowsError(error, kCreateFailed, GetLastError());
  }
  // A half-written file must not keep the name: the next writer would find it taken.
  const auto give_up = [&](const wchar_t* prefix, DWORD code) {
    SetWindowsError(error, prefix, code);
    file.Reset();
    DeleteTemporaryFile(path);
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

bool MoveIntoPlace(const std::wstring& temporary_path, const std::wstring& path) {
  RetrySchedule schedule;
  return MoveFileWithRetry(temporary_path, path, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH,
                           schedule);
}

void DeleteTemporaryFile(const std::wstring& path) {
  RetrySchedule schedule;
  static_cast<void>(DeleteFileWithRetry(path, schedule));
}

bool ReplaceWholeFile(const std::wstring& path, const std::wstring& temporary_path,
                      std::span<const std::byte> bytes, const wchar_t* move_failed, MoveFailureText form,
                      UpdateError& error) {
  DeleteTemporaryFile(temporary_path);  // left by a run that died; WriteNewFile fails if the name exists
  if (!WriteNewFile(temporary_path, bytes, error)) {
    return false;
  }
  if (!MoveIntoPlace(temporary_path, path)) {
    if (form == MoveFailureText::kSentence) {
      SetError(error, move_failed);
    } else {
      SetWindowsError(error, move_failed, GetLastError());  // read before the deletion can change it
    }
    DeleteTemporaryFile(temporary_path);
    return false;
  }
  return true;
}

}  // namespace talvex
