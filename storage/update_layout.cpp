#include "storage/update_layout.h"

#include "core/text_encoding.h"
#include "storage/client_root.h"

namespace talvex {
namespace {

constexpr wchar_t kManifestName[] = L"manifest.txt";
constexpr wchar_t kSignatureName[] = L"manifest.sig";
constexpr wchar_t kApplyPlanName[] = L"apply.plan";

constexpr wchar_t kRollbackJournalName[] = L"rollback.journal";
constexpr wchar_t kOldInstallName[] = L"old-install";
constexpr wchar_t kRecoveryName[] = L"recovery";
constexpr wchar_t kRecoveryManifestName[] = L"new-manifest.txt";
constexpr wchar_t kRecoverySignatureName[] = L"new-manifest.sig";
constexpr wchar_t kRecoveryHelperName[] = L"rollback-helper.exe";

constexpr wchar_t kProcessIdSeparator[] = L"-";

}  // namespace

SignedPairPaths SignedPairIn(std::wstring_view directory) {
  return {JoinPath(directory, kManifestName), JoinPath(directory, kSignatureName)};
}

std::wstring FilesDirectory(std::wstring_view directory) {
  return JoinPath(directory, kFilesDirectoryName);
}

std::wstring ClientProgramPath(std::wstring_view root) {
  return JoinPath(root, kClientFileName);
}

std::wstring InstalledStatePath(std::wstring_view root) {
  return JoinPath(root, kInstalledStateFileName);
}

std::wstring FailureMarkerPath(std::wstring_view root) {
  return JoinPath(root, kFailureMarkerFileName);
}

std::wstring CacheDirectory(std::wstring_view root) {
  return JoinPath(root, kCacheDirectoryName);
}

std::wstring WorkDirectory(std::wstring_view root) {
  return JoinPath(root, kWorkDirectoryName);
}

std::wstring StageRoot(std::wstring_view root, const Sha256Digest& manifest_digest) {
  return JoinPath(WorkDirectory(root), DigestToHex(manifest_digest));
}

std::wstring PreviousDirectory(std::wstring_view root) {
  return JoinPath(WorkDirectory(root), kPreviousDirectoryName);
}

std::wstring ApplyPlanPath(std::wstring_view stage_root) {
  return JoinPath(stage_root, kApplyPlanName);
}

std::wstring RollbackJournalPath(std::wstring_view previous_directory) {
  return JoinPath(previous_directory, kRollbackJournalName);
}

std::wstring OldInstallDirectory(std::wstring_view previous_directory) {
  return JoinPath(previous_directory, kOldInstallName);
}

std::wstring RecoveryDirectory(std::wstring_view previous_directory) {
  return JoinPath(previous_directory, kRecoveryName);
}

SignedPairPaths RecoveryPair(std::wstring_view previous_directory) {
  const std::wstring recovery = RecoveryDirectory(previous_directory);
  return {JoinPath(recovery, kRecoveryManifestName), JoinPath(recovery, kRecoverySignatureName)};
}

std::wstring RecoveryHelperPath(std::wstring_view previous_directory) {
  return JoinPath(RecoveryDirectory(previous_directory), kRecoveryHelperName);
}

std::wstring TemporaryPath(std::wstring_view path) {
  return std::wstring(path).append(kTemporarySuffix);
}

std::wstring InstalledStateTemporaryPath(std::wstring_view root, std::uint32_t process_id) {
  return TemporaryPath(InstalledStatePath(root))
      .append(kProcessIdSeparator)
      .append(std::to_wstring(process_id));
}

}  // namespace talvex
