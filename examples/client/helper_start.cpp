#include "examples/client/helper_start.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "core/ascii_case.h"
#include "core/child_process.h"
#include "core/owned_handle.h"
#include "core/publisher_key.h"
#include "core/text_encoding.h"
#include "examples/client/client_lock.h"
#include "examples/client/health_check.h"
#include "formats/rollback_journal.h"
#include "storage/client_root.h"
#include "storage/directory_listing.h"
#include "storage/update_layout.h"
#include "storage/work_storage.h"

namespace talvex::example {
namespace {

constexpr wchar_t kPlacePrefix[] = L"TalvexUpdate-";
constexpr std::size_t kPlaceNameLength = 16;  // characters: enough to distinguish clients

constexpr wchar_t kNoTemporaryDirectory[] = L"There is no temporary folder for the update helper";
constexpr wchar_t kWrongHelper[] = L"The update helper is not the one of its release.";
constexpr wchar_t kCopyFailed[] = L"The update helper could not be copied";
constexpr wchar_t kStartFailed[] = L"The update helper could not be started";

// The temporary folder, and the prefix of the names of this client's helper directories in it. The client's
// own name is part of the prefix, so that the holder of the ownership lock may remove them.
bool NamePlaces(const std::wstring& client_root, std::wstring& temporary, std::wstring& prefix,
                UpdateError& error) {
  std::array<wchar_t, MAX_PATH + 1> path{};
  const DWORD length = GetTempPathW(static_cast<DWORD>(path.size()), path.data());
  if (length == 0 || length >= path.size()) {
    return RefuseWithWindowsError(error, kNoTemporaryDirectory, GetLastError());
  }
  temporary = path.data();
  const std::wstring name = NameOfDirectory(client_root, error);
  prefix = std::wstring(kPlacePrefix) + name.substr(0, kPlaceNameLength) + L"-";
  return !name.empty();
}

// Copies the helper to a directory of its own outside the client directory. A running program cannot be
// replaced or deleted: run from its stage, the helper could not clear the work directory, and run from the
// client directory it could not replace itself.
bool PlaceHelper(const std::wstring& client_root, const std::wstring& source, const Manifest& release,
                 std::wstring& program, UpdateError& error) {
  const ManifestEntry* const entry = FindManifestEntry(release, kHelperFileName);
  std::wstring temporary;
  std::wstring prefix;
  if (!NamePlaces(client_root, temporary, prefix, error)) {
    return false;
  }
  // A number that no earlier helper has: the one that restarted this client may still be about to exit.
  const std::wstring place = JoinPath(temporary, prefix + std::to_wstring(GetTickCount64()));
  program = JoinPath(place, kHelperFileName);
  if (!CreateDirectoryW(place.c_str(), nullptr) || !CopyFileW(source.c_str(), program.c_str(), TRUE)) {
    return RefuseWithWindowsError(error, kCopyFailed, GetLastError());
  }
  // The helper rejects a release that it does not belong to, but only after the client has exited.
  return (entry != nullptr && IsFileOfRelease(place, *entry, error)) ||
         RefuseUnlessExplained(error, kWrongHelper);
}

// The handles that the helper inherits. The first two are also operands; the third is a sign to other
// clients.
struct HelperHandles {
  OwnedHandle parent;
  OwnedHandle lock;
  OwnedHandle at_work;
};

bool MakeInheritable(HANDLE source, DWORD access, DWORD options, OwnedHandle& duplicate) {
  const HANDLE process = GetCurrentProcess();
  HANDLE made = nullptr;
  if (!DuplicateHandle(process, source, process, &made, access, TRUE, options)) {
    return false;
  }
  duplicate.Reset(made);
  return true;
}

bool MakeHelperHandles(const std::wstring& client_root, HANDLE lock, HelperHandles& handles,
                       UpdateError& error) {
  // The helper only waits for its parent.
  if (!MakeInheritable(GetCurrentProcess(), SYNCHRONIZE, 0, handles.parent) ||
      !MakeInheritable(lock, 0, DUPLICATE_SAME_ACCESS, handles.lock)) {
    return RefuseWithWindowsError(error, kStartFailed, GetLastError());
  }
  return AnnounceHelper(client_root, handles.at_work, error);
}

std::wstring HandleText(const OwnedHandle& handle) {
  return std::to_wstring(reinterpret_cast<std::uintptr_t>(handle.Get()));
}

// No operand contains a quotation mark or ends in a backslash: resolved client roots do neither, and the rest
// are digits.
std::wstring CommandLine(const std::wstring& program, std::initializer_list<std::wstring> operands) {
  std::wstring line = L"\"" + program + L"\"";
  for (const std::wstring& operand : operands) {
    line += L" \"" + operand + L"\"";
  }
  return line;
}

bool StartHelper(const std::wstring& program, const std::wstring& command_line, const HelperHandles& handles,
                 UpdateError& error) {
  // The helper starts in its own directory: a current directory cannot be removed.
  const std::wstring place(program, 0, program.rfind(L'\\'));
  ChildProcess helper;
  if (!StartChildProcess(program, command_line, place,
                         {handles.parent.Get(), handles.lock.Get(), handles.at_work.Get()}, helper)) {
    return RefuseWithWindowsError(error, kStartFailed, GetLastError());
  }
  return true;
}

}  // namespace

bool StartUpdate(const std::wstring& client_root, const ReleaseOffer& offer, const StagedRelease& staged,
                 HANDLE lock, UpdateError& error) {
  std::wstring program;
  HelperHandles handles;
  if (!PlaceHelper(client_root, staged.helper_path, offer.release.manifest, program, error) ||
      !MakeHelperHandles(client_root, lock, handles, error)) {
    return false;
  }
  return StartHelper(
      program,
      CommandLine(program, {L"--apply-plan", client_root, staged.stage_root, HandleText(handles.parent),
                            DigestToHex(offer.release.manifest.digest), DigestToHex(staged.plan_digest),
                            HandleText(handles.lock)}),
      handles, error);
}

bool StartRollback(const std::wstring& client_root, HANDLE lock, UpdateError& error) {
  const std::wstring previous = PreviousDirectory(client_root);
  RollbackJournal journal;
  Manifest release;
  std::wstring program;
  HelperHandles handles;
  if (!ParseRollbackJournal(RollbackJournalPath(previous), journal, error) ||
      !VerifyRecoveryManifest(previous, journal, PublisherKeyBlob(), release, error) ||
      !PlaceHelper(client_root, RecoveryHelperPath(previous), release, program, error) ||
      !MakeHelperHandles(client_root, lock, handles, error)) {
    return false;
  }
  return StartHelper(program,
                     CommandLine(program, {L"--rollback-journal", client_root, HandleText(handles.parent),
                                           HandleText(handles.lock)}),
                     handles, error);
}

void RemoveOldHelpers(const std::wstring& client_root) {
  UpdateError unreported;
  std::wstring temporary;
  std::wstring prefix;
  if (!NamePlaces(client_root, temporary, prefix, unreported)) {
    return;
  }
  for (DirectoryListing listing(temporary); listing.AtEntry(); listing.Advance()) {
    if (FoldAsciiCase(listing.Name()).starts_with(FoldAsciiCase(prefix))) {
      static_cast<void>(RemoveWorkTree(JoinPath(temporary, listing.Name()), unreported));
    }
  }
}

}  // namespace talvex::example
