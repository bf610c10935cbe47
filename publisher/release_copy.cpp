#include "publisher/release_copy.h"

#include <windows.h>

#include <cstdint>
#include <span>
#include <string_view>
#include <utility>

#include "core/owned_handle.h"
#include "core/page_buffer.h"
#include "core/sha256.h"
#include "core/whole_file.h"
#include "formats/text_lines.h"
#include "publisher/path_room.h"
#include "publisher/progress.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

// Small enough to stay in the processor's cache until it is hashed and written: 1 MiB takes a fifth longer.
constexpr DWORD kPieceSize = 131'072;

constexpr wchar_t kCreateFailed[] = L"Could not create a file of the release";
constexpr wchar_t kReadFailed[] = L"Could not read the file";
constexpr wchar_t kWriteFailed[] = L"Could not write a file of the release";
constexpr wchar_t kTooLongToCopy[] =
    L"The path of its copy would be too long. Name a directory with a shorter path for the release.";
constexpr wchar_t kChanged[] = L"The file changed while it was being published.";

// Invalid, with a message, when the file cannot be created; it must not exist yet.
OwnedHandle CreateCopy(const std::wstring& path, UpdateError& error) {
  OwnedHandle file(
      CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.IsValid()) {
    SetWindowsError(error, kCreateFailed, GetLastError());
  }
  return file;
}

bool Write(HANDLE file, std::span<const std::byte> bytes, UpdateError& error) {
  DWORD written = 0;
  if (!WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr)) {
    return RefuseWithWindowsError(error, kWriteFailed, GetLastError());
  }
  // Only for want of room does Windows write less than it was told to.
  return written == bytes.size() || RefuseWithWindowsError(error, kWriteFailed, ERROR_DISK_FULL);
}

class ReleaseCopy {
 public:
  ReleaseCopy(const std::wstring& directory, Progress& progress)
      : directory_(directory), progress_(progress), piece_(AllocatePages(kPieceSize)) {}

  // Copies `file` and fills `entry`; the size that was listed decides whether it goes into a program's
  // buffer.
  bool Copy(const ReleaseFile& file, ReleasePrograms& programs, ManifestEntry& entry, UpdateError& error) {
    entry.path = file.path;
    entry.size = file.size;
    entry.normalised_path = file.normalised_path;
    const std::wstring relative_path = JoinPath(FilesDirectory(L""), entry.normalised_path);
    const std::wstring copy = JoinPath(directory_, relative_path);
    if (copy.size() > kMaxFullPath || ParentOfRelativePath(copy).size() > kMaxFullDirectoryPath) {
      return Refuse(error, kTooLongToCopy);
    }
    if (!MakeParent(relative_path, error)) {
      return false;
    }
    std::uint64_t size = 0;
    const OwnedHandle source = OpenFileForHashing(file.full_path, kManagedFileSizeLimit, size, error);
    if (!source.IsValid() || !CopyOpenFile(source.Get(), copy, BufferFor(entry, programs), entry, error)) {
      return false;
    }
    progress_.FinishFile(entry.size);
    return true;
  }

 private:
  bool MakeParent(const std::wstring& relative_path, UpdateError& error) {
    const std::wstring_view parent = ParentOfRelativePath(relative_path);
    if (parent == made_parent_) {
      return true;  // most files are in the same directory as the one before
    }
    std::wstring unused;
    if (!CreateUpdateDirectory(directory_, parent, unused, error)) {
      return false;
    }
    made_parent_ = parent;
    return true;
  }

  bool CopyOpenFile(HANDLE source, const std::wstring& copy, ByteBuffer* kept, ManifestEntry& entry,
                    UpdateError& error) {
    const OwnedHandle destination = CreateCopy(copy, error);
    if (!destination.IsValid()) {
      return false;
    }
    Sha256Hash hash;
    if (piece_ == nullptr || !hash.Prepare()) {
      return Refuse(error, kDigestFailed);
    }
    std::uint64_t total = 0;
    for (;;) {
      DWORD read = 0;
      if (!ReadFile(source, piece_.get(), kPieceSize, &read, nullptr)) {
        return RefuseWithWindowsError(error, kReadFailed, GetLastError());
      }
      if (read == 0) {
        break;
      }
      if (!Write(destination.Get(), {piece_.get(), read}, error)) {
        return false;
      }
      if (!hash.Add({piece_.get(), read})) {
        return Refuse(error, kDigestFailed);
      }
      total += read;
      if (kept != nullptr && total <= entry.size) {
        kept->insert(kept->end(), piece_.get(), piece_.get() + read);
      }
      Progress::Report(total, &progress_);
    }
    if (total != entry.size) {
      return Refuse(error, kChanged);
    }
    return hash.Finish(entry.digest) || Refuse(error, kDigestFailed);
  }

  const std::wstring& directory_;
  Progress& progress_;
  PageBuffer piece_;
  std::wstring made_parent_;
};

}  // namespace

bool CopyReleaseFiles(const ReleaseTree& tree, const std::wstring& directory, Manifest& draft,
                      ReleasePrograms& programs, UpdateError& error) {
  Progress progress(L"Copied", TotalSize(tree));
  ReleaseCopy copy(directory, progress);
  for (const ReleaseFile& file : tree.files) {
    UpdateError reason;
    if (!copy.Copy(file, programs, draft.entries.emplace_back(), reason)) {
      return Refuse(error, file.full_path + L": " + reason.Message());
    }
  }
  return true;
}

bool WriteReleaseFile(const std::wstring& path, std::string_view text, UpdateError& error) {
  const OwnedHandle file = CreateCopy(path, error);
  return file.IsValid() && Write(file.Get(), AsBytes(text), error);
}

}  // namespace talvex
