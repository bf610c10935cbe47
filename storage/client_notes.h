#pragma once

// The names in the client root that only the client gives to a file or directory. The helper knows none of
// them; what both know is in update_layout.h.
//
//   <client root>
//     .talvex-update~lock            held open by the running client or helper; exists only meanwhile
//     .talvex-update~attempts        how often a release was installed without success
//     .talvex-update~damaged         files were found damaged, and have not been found whole since
//     .talvex-update~aside-NUMBER    what was in the way and could not be removed
//     .talvex-update
//       interrupted                  the release being rolled back was never started
//       previous
//         failed                     the release was started and has not been confirmed yet
//         restoring                  a rollback was started
//         restoring-again            ... twice
//
// No release can contain a name with "~", and no helper clears one: what has to survive every update and
// rollback is beside the work directory. The notes are empty files; those in the work directory live as long
// as the update that they are about.

#include <string>
#include <string_view>

#include "storage/client_root.h"
#include "storage/update_layout.h"

namespace talvex {

// Beside the work directory.
[[nodiscard]] inline std::wstring LockPath(std::wstring_view root) {
  return WorkDirectory(root).append(L"~lock");
}
[[nodiscard]] inline std::wstring AttemptsPath(std::wstring_view root) {
  return WorkDirectory(root).append(L"~attempts");
}
[[nodiscard]] inline std::wstring DamagedNotePath(std::wstring_view root) {
  return WorkDirectory(root).append(L"~damaged");
}
[[nodiscard]] inline std::wstring AsidePathPrefix(std::wstring_view root) {  // a number follows
  return WorkDirectory(root).append(L"~aside-");
}

// In the work directory.
[[nodiscard]] inline std::wstring InterruptedNotePath(std::wstring_view root) {
  return JoinPath(WorkDirectory(root), L"interrupted");
}
[[nodiscard]] inline std::wstring FailedNotePath(std::wstring_view root) {
  return JoinPath(PreviousDirectory(root), L"failed");
}
[[nodiscard]] inline std::wstring RestoringNotePath(std::wstring_view root) {
  return JoinPath(PreviousDirectory(root), L"restoring");
}
[[nodiscard]] inline std::wstring RestoringAgainNotePath(std::wstring_view root) {
  return JoinPath(PreviousDirectory(root), L"restoring-again");
}

}  // namespace talvex
