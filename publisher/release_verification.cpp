#include "publisher/release_verification.h"

#include <map>
#include <string_view>

#include "core/manifest_signature.h"
#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/managed_file.h"
#include "publisher/progress.h"
#include "publisher/release_check.h"
#include "publisher/release_tree.h"
#include "storage/client_root.h"

namespace talvex {
namespace {

constexpr wchar_t kSignedByOther[] =
    L" Name the public half of the key that signed it with --key, or sign manifest.txt again, unchanged.";
constexpr wchar_t kUnlisted[] =
    L"is not in the manifest, so no client would ask for it. Delete it, or make the "
    L"release again with it.";
constexpr wchar_t kSpelledOtherwise[] =
    L"is spelled otherwise in the manifest, and a web server may not find it. Rename it to ";
constexpr wchar_t kMissing[] =
    L"is in the manifest, but not among the files. Put it back, or make the release again.";
constexpr wchar_t kDamaged[] =
    L"is not the file that the manifest describes. Put that one back, or make the release again.";

// Compares the paths on disk with those of the manifest, and gives the files to verify, by their entries.
std::map<const ManifestEntry*, std::wstring> MatchFiles(const ReleaseTree& tree, const Manifest& manifest,
                                                        Findings& findings) {
  std::map<const ManifestEntry*, std::wstring> found;
  for (const ReleaseFile& file : tree.files) {
    const std::wstring& path = file.normalised_path;
    const ManifestEntry* const entry = FindManifestEntryIgnoringCase(manifest, path);
    if (entry == nullptr) {
      findings.AddError(path, kUnlisted);
    } else if (entry->path != file.path) {
      findings.AddError(path, kSpelledOtherwise + entry->normalised_path + L".");
    } else {
      found.emplace(entry, file.full_path);
      continue;
    }
    found.emplace(entry, L"");  // reported; not missing as well
  }
  return found;
}

void VerifyFiles(const std::wstring& files_directory, const Manifest& manifest, ReleasePrograms& programs,
                 Findings& findings) {
  UpdateError error;
  ReleaseTree tree;
  if (!ListReleaseFiles(files_directory, FileCheck::kNamesOnly, tree, findings, error)) {
    findings.AddError(L"", error.Message());
    return;
  }
  for (const std::wstring& path : tree.skipped) {
    findings.AddError(path, kUnlisted);
  }
  const auto found = MatchFiles(tree, manifest, findings);
  Progress progress(L"Verified", TotalSize(tree));
  for (const ManifestEntry& entry : manifest.entries) {
    const auto file = found.find(&entry);
    if (file == found.end()) {
      findings.AddError(entry.normalised_path, kMissing);
      continue;
    }
    if (file->second.empty()) {
      continue;
    }
    ByteBuffer* const program = BufferFor(entry, programs);
    UpdateError reason;
    if (!(program != nullptr ? ReadVerifiedProgram(file->second, entry, kDamaged, *program, reason)
                             : VerifyManagedFile(file->second, entry, kManagedFileSizeLimit, kDamaged, reason,
                                                 &Progress::Report, &progress))) {
      findings.AddError(entry.normalised_path, reason.Message());
    }
    progress.FinishFile(entry.size);
  }
}

}  // namespace

bool IsSignatureRefused(const SignedManifest& read, const PublicKey& key) {
  UpdateError unreported;
  return !read.manifest_bytes.empty() &&
         !VerifyManifestSignature(read.manifest_bytes, read.signature, key.blob, unreported);
}

void VerifyRelease(const SignedPairPaths& pair, const std::wstring& files_directory, const ReleaseKeys& keys,
                   const ProgramAllowances& allowances, SignedManifest& release, Findings& findings) {
  release = {};
  UpdateError error;
  if (!ReadSignedPair(pair, release.manifest_bytes, release.signature, error)) {
    findings.AddError(pair.manifest + L", " + pair.signature, error.Message());
    return;
  }
  if (!VerifySignedManifest(release.manifest_bytes, release.signature, keys.signing.blob, release.manifest,
                            error)) {
    findings.AddError(pair.manifest,
                      error.Message() + (IsSignatureRefused(release, keys.signing) ? kSignedByOther : L""));
    release = {};  // nothing of it is trusted
    return;
  }
  ReleasePrograms programs;
  CheckManifest(release.manifest, findings);
  VerifyFiles(files_directory, release.manifest, programs, findings);
  CheckPrograms(release.manifest, programs, keys, allowances, findings);
}

}  // namespace talvex
