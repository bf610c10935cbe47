#include "apply/file_verification.h"

#include <cstdint>
#include <string_view>
#include <utility>

#include "formats/managed_file.h"
#include "storage/client_root.h"

namespace talvex {
namespace {

constexpr wchar_t kVerifyingInstalled[] = L"Verifying installed files...";

constexpr wchar_t kStagedMismatch[] = L"A staged update file failed verification.";
constexpr wchar_t kInstalledMismatch[] = L"An installed update file failed verification.";

struct ByteProgress {
  TransactionDisplay& display;
  std::uint64_t done;
  std::uint64_t total;

  static void OnPiece(std::uint64_t bytes_hashed, void* context) {
    const auto& progress = *static_cast<ByteProgress*>(context);
    progress.display.SetStatusProgress(progress.done + bytes_hashed, progress.total);
  }

  void AddFile(std::uint64_t size) {
    done += size;
    display.SetStatusProgress(done, total);
  }
};

}  // namespace

bool VerifyStagedFiles(const std::wstring& staged_files_directory, const std::wstring& client_root,
                       const std::wstring& rollback_files_directory,
                       const std::vector<const ManifestEntry*>& install_entries,
                       std::vector<ApplyOperation>& operations, TransactionDisplay& display,
                       UpdateError& error) {
  std::uint64_t total = 0;
  for (const ManifestEntry* const entry : install_entries) {
    total += entry->size;
  }
  ByteProgress progress{display, 0, total};
  for (const ManifestEntry* const entry : install_entries) {
    ApplyOperation operation;
    operation.entry = entry;
    const std::wstring& relative_path = entry->normalised_path;
    // No reparse check of the rollback copy's path: its directories are only created when rollback is
    // prepared.
    if (!ResolveCheckedPath(staged_files_directory, relative_path, operation.staged_path, error) ||
        !ResolveCheckedPath(client_root, relative_path, operation.target_path, error) ||
        !ResolveUpdatePath(rollback_files_directory, relative_path, operation.rollback_copy_path, error) ||
        !VerifyManagedFile(operation.staged_path, *entry, entry->size, kStagedMismatch, error)) {
      return false;
    }
    progress.AddFile(entry->size);
    operations.push_back(std::move(operation));
  }
  return true;
}

bool VerifyInstalledFiles(const std::wstring& client_root, const Manifest& new_manifest,
                          TransactionDisplay& display, UpdateError& error) {
  std::uint64_t total = 0;
  for (const ManifestEntry& entry : new_manifest.entries) {
    total += entry.size;
  }
  ByteProgress progress{display, 0, total};
  display.SetStatusText(kVerifyingInstalled);
  display.SetStatusProgress(0, total);
  for (const ManifestEntry& entry : new_manifest.entries) {
    std::wstring path;
    if (!ResolveCheckedPath(client_root, entry.normalised_path, path, error) ||
        !VerifyManagedFile(path, entry, entry.size, kInstalledMismatch, error, ByteProgress::OnPiece,
                           &progress)) {
      return false;
    }
    progress.AddFile(entry.size);
  }
  return true;
}

}  // namespace talvex
