#include <windows.h>

#include <string>
#include <string_view>

#include "core/ascii_case.h"
#include "core/regular_file.h"
#include "core/retry.h"
#include "core/text_encoding.h"
#include "formats/text_lines.h"
#include "publisher/commands.h"
#include "publisher/console.h"
#include "publisher/path_room.h"
#include "publisher/release_check.h"
#include "publisher/release_copy.h"
#include "publisher/release_tree.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"
#include "storage/work_storage.h"

namespace talvex {
namespace {

constexpr wchar_t kMakingSuffix[] = L".making-";

constexpr wchar_t kOutExists[] = L"exists already. A release is never written over: name another directory.";
constexpr wchar_t kOutInside[] = L"lies inside the client directory. Name a directory outside.";
constexpr wchar_t kNoFiles[] = L"has no files that a release could contain.";
constexpr wchar_t kCreateFailed[] = L"Could not create the directory";
constexpr wchar_t kMoveFailed[] = L"Could not put the finished release in its place";
constexpr wchar_t kNotRemoved[] = L": could not be removed. Delete it.";
constexpr wchar_t kSkipped[] = L"Left out, as it is the updater's own: ";

bool LiesInside(std::wstring_view directory, std::wstring_view outer) {
  std::wstring prefix = FoldAsciiCase(outer);
  if (!prefix.ends_with(L'\\')) {
    prefix += L'\\';
  }
  return (FoldAsciiCase(directory) + L'\\').starts_with(prefix);
}

// A release while it is being made: a directory beside the final one, under another name, which goes away
// unless it is moved there. An interrupted run leaves nothing that looks like a release.
class UnfinishedRelease {
 public:
  explicit UnfinishedRelease(const std::wstring& out)
      : out_(out), path_(out + kMakingSuffix + std::to_wstring(GetCurrentProcessId())) {}
  UnfinishedRelease(const UnfinishedRelease&) = delete;
  UnfinishedRelease& operator=(const UnfinishedRelease&) = delete;
  ~UnfinishedRelease() {
    UpdateError unreported;  // what the command failed with matters more
    if (exists_ && !RemoveWorkTree(path_, unreported)) {
      WriteLine(Stream::kError, path_ + kNotRemoved);
    }
  }

  [[nodiscard]] const std::wstring& Path() const { return path_; }

  // Fails if the name is taken: only a directory made here is removed in the end.
  [[nodiscard]] bool Create(UpdateError& error) {
    exists_ = CreateDirectoryW(path_.c_str(), nullptr) != 0;
    return exists_ || RefuseWithWindowsError(error, kCreateFailed, GetLastError());
  }

  // Fails if something has appeared there since.
  [[nodiscard]] bool MoveToItsPlace(UpdateError& error) {
    RetrySchedule schedule;  // a scanner that looks at one of the new files keeps the directory in its place
    if (!MoveFileWithRetry(path_, out_, MOVEFILE_WRITE_THROUGH, schedule)) {
      return RefuseWithWindowsError(error, kMoveFailed, GetLastError());
    }
    exists_ = false;
    return true;
  }

 private:
  std::wstring out_;
  std::wstring path_;
  bool exists_ = false;
};

// Where to make the release; empty, with a finding, when it cannot be made there.
std::wstring ResolveOut(const std::wstring& out, const std::wstring& client_root, Findings& findings) {
  UpdateError error;
  std::wstring resolved = ResolveClientRoot(out, error);
  if (resolved.empty()) {
    findings.AddError(out, error.Message());
  } else if (MayExist(resolved)) {
    findings.AddError(out, kOutExists);
  } else if (LiesInside(resolved, client_root)) {
    findings.AddError(out, kOutInside);
  } else {
    return resolved;
  }
  return {};
}

// Copies, describes and checks. `manifest` is the helper's own parser's reading of what was written.
bool FillRelease(const ReleaseOptions& options, const ReleaseTree& tree, const ReleaseKeys& keys,
                 const std::wstring& directory, Manifest& manifest, Findings& findings, UpdateError& error) {
  Manifest draft;
  draft.release = options.name;
  draft.sequence = options.sequence;
  ReleasePrograms programs;
  if (!CopyReleaseFiles(tree, directory, draft, programs, error)) {
    return false;
  }
  const std::string text = FormatManifest(draft);
  if (!ParseManifest(AsBytes(text), manifest, error) ||
      !WriteReleaseFile(SignedPairIn(directory).manifest, text, error)) {
    return false;
  }
  CheckManifest(manifest, findings);
  CheckPrograms(manifest, programs, keys, options.common.allowances, findings);
  return true;
}

void MakeCheckedRelease(const ReleaseOptions& options, const ReleaseTree& tree, const ReleaseKeys& keys,
                        const std::wstring& out, Manifest& manifest, Findings& findings) {
  UpdateError error;
  UnfinishedRelease release(out);
  if (!release.Create(error) ||
      !FillRelease(options, tree, keys, release.Path(), manifest, findings, error) ||
      (findings.Pass(options.common.allow_warnings) && !release.MoveToItsPlace(error))) {
    findings.AddError(options.out, error.Message());
  }
}

}  // namespace

int MakeRelease(const ReleaseOptions& options) {
  Findings findings;
  ReleaseKeys keys;
  const std::wstring client_root = ExistingDirectory(options.client_directory, findings);
  if (client_root.empty() || !LoadKeys(options.common, keys, findings)) {
    return Conclude(options.common, findings, {});
  }
  const std::wstring out = ResolveOut(options.out, client_root, findings);
  UpdateError error;
  ReleaseTree tree;
  if (!out.empty() && !ListReleaseFiles(client_root, FileCheck::kEachFile, tree, findings, error)) {
    findings.AddError(L"", error.Message());
  } else if (!out.empty() && tree.files.empty()) {
    findings.AddError(client_root, kNoFiles);
  }
  // Nothing is copied for a release that is refused anyway.
  if (!findings.Pass(options.common.allow_warnings)) {
    return Conclude(options.common, findings, {});
  }
  for (const std::wstring& path : tree.skipped) {
    WriteLine(Stream::kError, kSkipped + path);
  }
  Manifest manifest;
  MakeCheckedRelease(options, tree, keys, out, manifest, findings);
  return Conclude(options.common, findings,
                  L"Made " + Describe(manifest) + L"\nmanifest-sha256 " + DigestToHex(manifest.digest) +
                      L"\n" + DescribeRoom(manifest));
}

}  // namespace talvex
