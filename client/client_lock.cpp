#include "client/client_lock.h"

#include "client/work_directory.h"
#include "core/child_process.h"
#include "core/regular_file.h"
#include "core/retry.h"
#include "storage/client_notes.h"

namespace talvex::client {
namespace {

constexpr DWORD kPollMs = 50;

constexpr wchar_t kTaken[] = L"Talvex already runs from this directory, or is being updated.";
constexpr wchar_t kNotWritable[] = L"Talvex cannot be updated: this user may not write to its directory.";
constexpr wchar_t kNotTaken[] = L"Could not take the client directory";

// Opened as itself, so that a link in its place leads nowhere.
OwnedHandle OpenLockFile(const std::wstring& path) {
  return OwnedHandle(
      CreateFileW(path.c_str(), GENERIC_WRITE | DELETE, 0, nullptr, OPEN_ALWAYS,
                  FILE_FLAG_DELETE_ON_CLOSE | FILE_FLAG_OPEN_REPARSE_POINT | FILE_ATTRIBUTE_NORMAL, nullptr));
}

// "Access denied" for a name that exists: the file is just being deleted, or a power cut has left it and it
// is read-only now, or its access list denies, or it is no file at all. What is held stays where it is.
void FreeName(const std::wstring& client_root, const std::wstring& path) {
  if (ProbePath(path) != PathKind::kFile || !SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL)) {
    static_cast<void>(MoveAside(client_root, path));
  }
}

}  // namespace

talvex_result ClientLock::Take(const std::wstring& client_root, DWORD wait_ms, const Callbacks& callbacks,
                               Failure& failure) {
  if (IsTaken()) {
    return TALVEX_OK;
  }
  const std::wstring path = LockPath(client_root);
  const ULONGLONG deadline = GetTickCount64() + wait_ms;
  bool was_absent = false;
  PhaseProgress waiting(callbacks, TALVEX_PHASE_SETTLE, 0);
  for (;;) {
    file_ = OpenLockFile(path);
    if (file_.IsValid()) {
      return TALVEX_OK;
    }
    const DWORD code = GetLastError();
    if (code == ERROR_WRITE_PROTECT) {
      return Fail(failure, TALVEX_E_NOT_WRITABLE, kNotWritable);
    }
    const bool is_denied = code == ERROR_ACCESS_DENIED;
    // Twice, because a name that is just being deleted may be gone the moment after.
    const bool is_absent = is_denied && ProbePath(path) == PathKind::kAbsent;
    if (is_absent && was_absent) {
      return Fail(failure, TALVEX_E_NOT_WRITABLE, kNotWritable);
    }
    was_absent = is_absent;
    if (is_denied && !is_absent) {
      FreeName(client_root, path);
    }
    if (!IsTransientError(code) || GetTickCount64() >= deadline) {
      if (is_denied && CanBeRead(path)) {  // left by a power cut, and nobody's
        return Fail(failure, TALVEX_E_NOT_WRITABLE, kNotWritable);
      }
      return code == ERROR_SHARING_VIOLATION || is_denied
                 ? Fail(failure, TALVEX_E_ALREADY_RUNNING, kTaken)
                 : FailWithWindowsError(failure, TALVEX_E_SYSTEM, kNotTaken, code);
    }
    waiting.FinishFile(0);
    Sleep(kPollMs);
  }
}

OwnedHandle ClientLock::MakeInheritable() const {
  return DuplicateInheritable(file_.Get(), 0, DUPLICATE_SAME_ACCESS);
}

}  // namespace talvex::client
