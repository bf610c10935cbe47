#include "rollback/recovery_copy.h"

#include <string_view>

namespace talvex {
namespace {

constexpr wchar_t kSourceNotRegular[] = L"An updater recovery source is not a regular file.";
constexpr wchar_t kCopyFailed[] = L"Could not create an updater recovery copy.";
constexpr wchar_t kFlushFailed[] = L"Could not flush an updater recovery copy.";

// CreateFileW of an existing file, retried on transient errors.
OwnedHandle OpenWithRetry(const std::wstring& path, DWORD access, DWORD flags, RetryBudget& budget) {
  OwnedHandle file;
  RetrySchedule schedule(budget);
  static_cast<void>(schedule.Try([&] {
    file.Reset(CreateFileW(path.c_str(), access, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                           flags | FILE_ATTRIBUTE_NORMAL, nullptr));
    return file.IsValid();
  }));
  return file;
}

}  // namespace

bool MakeRecoveryCopy(const std::wstring& source, const std::wstring& destination, RetryBudget& budget,
                      UpdateError& error) {
  const bool may_be_copied = OpenRecoverySource(source, FILE_READ_ATTRIBUTES, budget, error).IsValid();
  return may_be_copied && CopyRecoverySource(source, destination, budget, error);
}

OwnedHandle OpenRecoverySource(const std::wstring& source, DWORD access, RetryBudget& budget,
                               UpdateError& error) {
  OwnedHandle file = OpenWithRetry(source, access, FILE_FLAG_OPEN_REPARSE_POINT, budget);
  if (!file.IsValid() || !IsRegularFile(file.Get())) {
    SetError(error, kSourceNotRegular);
    return OwnedHandle();
  }
  return file;
}

bool CopyRecoverySource(const std::wstring& source, const std::wstring& destination, RetryBudget& budget,
                        UpdateError& error) {
  RetrySchedule schedule(budget);
  if (!schedule.Try([&] { return CopyFileW(source.c_str(), destination.c_str(), TRUE) != 0; })) {
    return Refuse(error, kCopyFailed);
  }
  const OwnedHandle copy = OpenWithRetry(destination, GENERIC_WRITE, 0, budget);
  if (!copy.IsValid() || !FlushFileBuffers(copy.Get())) {
    return Refuse(error, kFlushFailed);
  }
  return true;
}

PathKind ProbePathWithRetry(const std::wstring& path, RetryBudget& budget) {
  RetrySchedule schedule(budget);
  return ProbeWithRetry(schedule, [&] { return ProbePath(path); });
}

}  // namespace talvex
