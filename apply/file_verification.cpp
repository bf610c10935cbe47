#include "apply/file_verification.h"

#include <cstdint>
#include <string_view>
#include <utility>

#include "core/sha256.h"
#include "storage/client_root.h"

namespace talvex {
namespace {

constexpr const wchar_t* kVerifyingInstalled = L"Verifying installed files...";

constexpr std::wstring_view kStagedMismatch = L"A staged update file failed verification.";
constexpr std::wstring_view kInstalledMismatch = L"An installed update file failed verification.";

// Proves the file at `path` to be the one that `entry` describes. The entry's size is the limit, so that a
// longer file is refused before a byte of it is read.
bool VerifyFile(const std::wstring& path, const ManifestEntry& entry, std::wstring_view mismatch,
                UpdateError& error, HashProgressCallback progress = nullptr, void* context = nullptr) {
  Sha256Digest digest;
  std::uint64_t size = 0;
  if (!Sha256OfFile(path, entry.size, digest, size, error, progress, context) || size != entry.size ||
      !DigestsEqual(digest, entry.digest)) {
    return RefuseUnlessExplained(error, mismatch);
  }
  return true;
}

struct ByteProgress {
  StatusWindow& window;
  std::uint64_t done;
  std::uint64_t total;

  static void OnPiece(std::uint64_t bytes_digested, void* context) {
    const auto& progress = *static_cast<ByteProgress*>(context);
    progress.window.SetStatusProgress(progress.done + bytes_digested, progress.total);
  }

  void AddFile(std::uint64_t size) {
    done += size;
    window.SetStatusProgress(done, total);
  }
};

}  // namespace

bool VerifyStagedFiles(const std::wstring& staged_files_directory, const std::wstring& client_root,
                       const std::wstring& rollback_files_directory,
                       const std::vector<const ManifestEntry*>& install_entries,
                       std::vector<ApplyOperation>& operations, StatusWindow& window, UpdateError& error) {
  std::uint64_t total = 0;
  for (const ManifestEntry* const entry : install_entries) {
    total += entry->size;
  }
  ByteProgress progress{window, 0, total};
  for (const ManifestEntry* const entry : install_entries) {
    ApplyOperation operation;
    operation.entry = entry;
    const std::wstring& relative_path = entry->normalised_path;
    // No reparse check of the rollback copy's path: its directories are only made once rollback is prepared.
    if (!ResolveCheckedPath(staged_files_directory, relative_path, operation.staged_path, error) ||
        !ResolveCheckedPath(client_root, relative_path, operation.target_path, error) ||
        !ResolveUpdatePath(rollback_files_directory, relative_path, operation.rollback_copy_path, error) ||
        !VerifyFile(operation.staged_path, *entry, kStagedMismatch, error)) {
      return false;
    }
    progress.AddFile(entry->size);
    operations.push_back(std::move(operation));
  }
  return true;
}

bool VerifyInstalledFiles(const std::wstring& client_root, const Manifest& new_manifest, StatusWindow& window,
                          UpdateError& error) {
  std::uint64_t total = 0;
  for (const ManifestEntry& entry : new_manifest.entries) {
    total += entry.size;
  }
  ByteProgress progress{window, 0, total};
  window.SetStatusText(kVerifyingInstalled);
  window.SetStatusProgress(0, total);
  for (const ManifestEntry& entry : new_manifest.entries) {
    std::wstring path;
    if (!ResolveCheckedPath(client_root, entry.normalised_path, path, error) ||
        !VerifyFile(path, entry, kInstalledMismatch, error, ByteProgress::OnPiece, &progress)) {
      return false;
    }
    progress.AddFile(entry.size);
  }
  return true;
}

}  // namespace talvex
