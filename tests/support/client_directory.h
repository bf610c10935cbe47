#pragma once

// A client directory with release 1.0 installed and release 2.0 staged: files replaced, new, unchanged and
// retired, in nested folders.

#include <windows.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/owned_handle.h"
#include "tests/support/helper_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {

class ClientDirectory {
 public:
  ClientDirectory();

  // Installs release 1.0 and stages release 2.0 with the plan, as they stand at this moment.
  void Prepare();

  // The operands of --apply-plan after the mode word, for what Prepare staged.
  [[nodiscard]] std::vector<std::wstring> ApplyOperands() const;
  [[nodiscard]] HelperResult Apply() { return Run(L"--apply-plan", ApplyOperands()); }
  [[nodiscard]] HelperResult Rollback() {
    return Run(L"--rollback-journal", {root, HandleText(parent.Get()), HandleText(lock.Get())});
  }
  [[nodiscard]] HelperResult Run(const std::wstring& mode, std::vector<std::wstring> operands,
                                 const std::function<void(DWORD)>& while_running = {});

  [[nodiscard]] std::wstring At(std::wstring_view relative) const;
  // The client's files, without the updater's own; and the files that each release consists of.
  [[nodiscard]] Tree ClientFiles() const;
  [[nodiscard]] static Tree FilesOf(const TestRelease& release);
  // Every file below the root, the updater's own included, without empty folders.
  [[nodiscard]] Tree AllFiles() const;

  ScratchDirectory scratch;
  std::wstring root = scratch / L"client";
  std::wstring helper = scratch / L"helper\\TalvexUpdateHelper.exe";
  std::wstring stage;
  std::wstring report = scratch / L"report.txt";  // of the restarted client
  TestRelease old_release;
  TestRelease new_release;
  StagedPlan plan;
  OwnedHandle parent = MakeInheritableEvent(true);  // stands for a client that has exited
  OwnedHandle lock = MakeInheritableMutex();
  OwnedHandle stray_event = MakeInheritableEvent(false);  // the helper has it, the client must not
};

}  // namespace talvex::test
