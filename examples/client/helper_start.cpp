#include "examples/client/helper_start.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "core/ascii_case.h"
#include "core/inherited_handle_list.h"
#include "core/owned_handle.h"
#include "core/text_encoding.h"
#include "examples/client/client_lock.h"
#include "examples/client/health_check.h"
#include "formats/rollback_journal.h"
#include "rollback/rollback_preparation.h"
#include "rollback/rollback_transaction.h"
#include "storage/client_root.h"
#include "storage/directory_listing.h"
#include "storage/work_storage.h"

namespace talvex::example {
namespace {

constexpr std::wstring_view kPlacePrefix = L"TalvexUpdate-";
constexpr std::size_t kPlaceNameLength = 16;  // characters: enough to tell clients apart

constexpr std::wstring_view kNoTemporaryDirectory = L"There is no temporary folder for the update helper";
constexpr std::wstring_view kWrongHelper = L"The update helper is not the one of its release.";
constexpr std::wstring_view kCopyFailed = L"The update helper could not be copied";
constexpr std::wstring_view kStartFailed = L"The update helper could not be started";

// The temporary folder, and what the names of all places for this client's helpers in it begin with. The
// client's own name is part of that, so that whoever holds the ownership lock may clear them.
bool NamePlaces(const std::wstring& client_root, std::wstring& temporary, std::wstring& prefix,
                UpdateError& error) {
  std::array<wchar_t, MAX_PATH + 1> path{};
  const DWORD length = GetTempPathW(static_cast<DWORD>(path.size()), path.data());
  if (length == 0 || length >= path.size()) {
    SetWindowsError(error, kNoTemporaryDirectory, GetLastError());
    return false;
  }
  temporary = path.data();
  const std::wstring name = NameOfDirectory(client_root, error);
  prefix = std::wstring(kPlacePrefix) + name.substr(0, kPlaceNameLength) + L"-";
  return !name.empty();
}

// Copies the helper to a directory of its own outside the client directory. A running program can be neither
// replaced nor deleted: run from its stage, the helper could not clear the work directory, and run from the
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
    SetWindowsError(error, kCopyFailed, GetLastError());
    return false;
  }
  // The helper refuses to run for a release that it does not belong to, but only when the client is gone.
  return (entry != nullptr && IsFileOfRelease(place, *entry, error)) ||
         RefuseUnlessExplained(error, kWrongHelper);
}

// The handles that the helper inherits. It is told of the first two; the third is a sign to other clients.
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
  // Waiting is all that the helper does with its parent.
  if (!MakeInheritable(GetCurrentProcess(), SYNCHRONIZE, 0, handles.parent) ||
      !MakeInheritable(lock, 0, DUPLICATE_SAME_ACCESS, handles.lock)) {
    SetWindowsError(error, kStartFailed, GetLastError());
    return false;
  }
  return AnnounceHelper(client_root, handles.at_work, error);
}

std::wstring HandleText(const OwnedHandle& handle) {
  return std::to_wstring(reinterpret_cast<std::uintptr_t>(handle.Get()));
}

// None of the operands holds a quotation mark or ends in a backslash: paths that are resolved as client roots
// do neither, and the rest are digits.
std::wstring CommandLine(const std::wstring& program, std::initializer_list<std::wstring> operands) {
  std::wstring line = L"\"" + program + L"\"";
  for (const std::wstring& operand : operands) {
    line += L" \"" + operand + L"\"";
  }
  return line;
}

bool StartHelper(const std::wstring& program, std::wstring command_line, const HelperHandles& handles,
                 UpdateError& error) {
  const InheritedHandleList inherited({handles.parent.Get(), handles.lock.Get(), handles.at_work.Get()});
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof(startup);
  startup.lpAttributeList = inherited.Get();
  PROCESS_INFORMATION started{};
  // The helper starts in its own directory: as its current directory, it would keep any other from being
  // removed.
  const std::wstring place(program, 0, program.rfind(L'\\'));
  if (!inherited.IsComplete() ||
      !CreateProcessW(program.c_str(), command_line.data(), nullptr, nullptr, TRUE,
                      EXTENDED_STARTUPINFO_PRESENT, nullptr, place.c_str(), &startup.StartupInfo, &started)) {
    SetWindowsError(error, kStartFailed, GetLastError());
    return false;
  }
  CloseHandle(started.hThread);
  CloseHandle(started.hProcess);
  return true;
}

}  // namespace

bool StartUpdate(const std::wstring& client_root, const ReleaseOffer& offer, const StagedRelease& staged,
                 HANDLE lock, UpdateError& error) {
  std::wstring program;
  HelperHandles handles;
  if (!PlaceHelper(client_root, staged.helper_path, offer.manifest, program, error) ||
      !MakeHelperHandles(client_root, lock, handles, error)) {
    return false;
  }
  return StartHelper(program,
                     CommandLine(program, {L"--apply-plan", client_root, staged.stage_root,
                                           HandleText(handles.parent), DigestToHex(offer.manifest.digest),
                                           DigestToHex(staged.plan_digest), HandleText(handles.lock)}),
                     handles, error);
}

bool StartRollback(const std::wstring& client_root, HANDLE lock, UpdateError& error) {
  const std::wstring previous = JoinPath(JoinPath(client_root, kWorkDirectoryName), kPreviousDirectoryName);
  const std::wstring source = JoinPath(JoinPath(previous, kRecoveryName), kRecoveryHelperName);
  RollbackJournal journal;
  Manifest release;
  std::wstring program;
  HelperHandles handles;
  if (!ParseRollbackJournal(JoinPath(previous, kRollbackJournalName), journal, error) ||
      !VerifyRecoveryManifest(previous, journal, release, error) ||
      !PlaceHelper(client_root, source, release, program, error) ||
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
