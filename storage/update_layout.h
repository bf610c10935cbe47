#pragma once

// Every name that the updater gives to a file or directory, and every path below a client root or a stage;
// the names that the client alone gives are in client_notes.h.
//
//   <client root>
//     Talvex.exe, TalvexUpdateHelper.exe, ...   the files of the installed release
//     TalvexUpdateState.dat                     which release is installed
//     TalvexUpdateFailure.dat                   which release could not start and was rolled back
//     .talvex-update-cache                      of the installed release:
//       manifest.txt, manifest.sig
//     .talvex-update                            the work directory
//       <SHA-256 of a manifest>                 a stage: the release to be installed
//         manifest.txt, manifest.sig
//         apply.plan
//         files\...                             what the plan installs
//       previous                                what is needed to undo the last update
//         rollback.journal
//         files\...                             the replaced and retired files
//         old-install                           mirrors the client root:
//           TalvexUpdateState.dat
//           .talvex-update-cache\manifest.txt, manifest.sig
//         recovery
//           new-manifest.txt, new-manifest.sig
//           rollback-helper.exe
//
// While a file is being written, its new text is beside it, under its name plus ".new" (for the state, "-"
// and the process id follow).
//
// Paths are only joined here: the user of one resolves or checks it (client_root.h). An empty base gives the
// relative path. The functions for a client root also accept old-install.

#include <cstdint>
#include <string>
#include <string_view>

#include "core/sha256_digest.h"

namespace talvex {

// Files in every release.
inline constexpr wchar_t kClientFileName[] = L"Talvex.exe";
inline constexpr wchar_t kHelperFileName[] = L"TalvexUpdateHelper.exe";

// The updater's own entries of the client root, which no release may name.
inline constexpr wchar_t kInstalledStateFileName[] = L"TalvexUpdateState.dat";
inline constexpr wchar_t kFailureMarkerFileName[] = L"TalvexUpdateFailure.dat";
inline constexpr wchar_t kCacheDirectoryName[] = L".talvex-update-cache";
inline constexpr wchar_t kWorkDirectoryName[] = L".talvex-update";
inline constexpr wchar_t kTemporarySuffix[] = L".new";

// The one entry of the work directory that is not a stage.
inline constexpr wchar_t kPreviousDirectoryName[] = L"previous";

// In a downloaded release, a stage and the previous directory: client files, each at its relative path.
inline constexpr wchar_t kFilesDirectoryName[] = L"files";

// A manifest and the signature that proves it.
struct SignedPairPaths {
  std::wstring manifest;
  std::wstring signature;
};

// In a downloaded release, a stage or the cache.
[[nodiscard]] SignedPairPaths SignedPairIn(std::wstring_view directory);
[[nodiscard]] std::wstring FilesDirectory(std::wstring_view directory);  // also in the previous directory

// Below a client root.
[[nodiscard]] std::wstring ClientProgramPath(std::wstring_view root);
[[nodiscard]] std::wstring InstalledStatePath(std::wstring_view root);
[[nodiscard]] std::wstring FailureMarkerPath(std::wstring_view root);
[[nodiscard]] std::wstring CacheDirectory(std::wstring_view root);
[[nodiscard]] std::wstring WorkDirectory(std::wstring_view root);
[[nodiscard]] std::wstring StageRoot(std::wstring_view root, const Sha256Digest& manifest_digest);
[[nodiscard]] std::wstring PreviousDirectory(std::wstring_view root);

// Below a stage.
[[nodiscard]] std::wstring ApplyPlanPath(std::wstring_view stage_root);

// Below the previous directory.
[[nodiscard]] std::wstring RollbackJournalPath(std::wstring_view previous_directory);
[[nodiscard]] std::wstring OldInstallDirectory(std::wstring_view previous_directory);
[[nodiscard]] std::wstring RecoveryDirectory(std::wstring_view previous_directory);
[[nodiscard]] SignedPairPaths RecoveryPair(std::wstring_view previous_directory);
[[nodiscard]] std::wstring RecoveryHelperPath(std::wstring_view previous_directory);

// Where the new text of a file is written before it takes the file's place. The state's carries the process
// id, so that two helpers never write to the same file.
[[nodiscard]] std::wstring TemporaryPath(std::wstring_view path);
[[nodiscard]] std::wstring InstalledStateTemporaryPath(std::wstring_view root, std::uint32_t process_id);

}  // namespace talvex
