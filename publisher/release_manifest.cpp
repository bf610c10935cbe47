#include "publisher/release_manifest.h"

#include <windows.h>

#include <string_view>

#include "core/sha256.h"
#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/text_lines.h"
#include "publisher/console.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr ULONGLONG kProgressIntervalMs = 2'000;
constexpr std::uint64_t kMebibyte = 1'048'576;  // bytes

constexpr wchar_t kMoveFailed[] = L"Could not put the manifest in its place";
constexpr wchar_t kFileChanged[] = L"The file changed while it was being published.";

class HashProgress {
 public:
  explicit HashProgress(const ClientTree& tree) {
    for (const ClientFile& file : tree.files) {
      total_ += file.size;
    }
  }

  // Matches HashProgressCallback; `context` is the HashProgress.
  static void Report(std::uint64_t bytes_of_file, void* context) {
    HashProgress& self = *static_cast<HashProgress*>(context);
    const ULONGLONG now = GetTickCount64();
    if (now - self.last_line_ms_ < kProgressIntervalMs) {
      return;
    }
    self.last_line_ms_ = now;
    WriteLine(Stream::kError, L"Hashed " + std::to_wstring((self.finished_ + bytes_of_file) / kMebibyte) +
                                  L" of " + std::to_wstring(self.total_ / kMebibyte) + L" MiB");
  }

  void FinishFile(std::uint64_t size) { finished_ += size; }

 private:
  std::uint64_t total_ = 0;     // bytes
  std::uint64_t finished_ = 0;  // bytes of the files before the current one
  ULONGLONG last_line_ms_ = GetTickCount64();
};

bool RefuseAbout(const std::wstring& path, UpdateError& error) {
  SetError(error, path + L": " + error.Message());
  return false;
}

bool HashFile(const ClientFile& file, HashProgress& progress, ManifestEntry& entry, UpdateError& error) {
  if (!Sha256OfFile(file.full_path, kManagedFileSizeLimit, entry.digest, entry.size, error,
                    &HashProgress::Report, &progress)) {
    return RefuseAbout(file.full_path, error);
  }
  if (entry.size != file.size) {
    SetError(error, kFileChanged);
    return RefuseAbout(file.full_path, error);
  }
  progress.FinishFile(entry.size);
  entry.path = file.path;
  return true;
}

}  // namespace

bool WriteReleaseManifest(const ClientTree& tree, const std::string& release, std::uint64_t sequence,
                          const std::wstring& path, Manifest& manifest, UpdateError& error) {
  Manifest draft;
  draft.release = release;
  draft.sequence = sequence;
  HashProgress progress(tree);
  for (const ClientFile& file : tree.files) {
    if (!HashFile(file, progress, draft.entries.emplace_back(), error)) {
      return false;
    }
  }
  const std::string text = FormatManifest(draft);
  return ParseManifest(AsBytes(text), manifest, error) &&
         ReplaceWholeFile(path, TemporaryPath(path), AsBytes(text), kMoveFailed,
                          MoveFailureText::kPrefixOfWindowsText, error);
}

}  // namespace talvex
