#pragma once

// A client directory with release 1.0 installed and release 2.0 staged: files replaced, new, unchanged and
// retired, in nested folders.

#include <windows.h>

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/owned_handle.h"
#include "core/text_encoding.h"
#include "tests/support/helper_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {

class ClientDirectory {
 public:
  ClientDirectory() { WriteTestFile(helper, new_release.files.at("TalvexUpdateHelper.exe")); }

  // Installs release 1.0 and stages release 2.0 with the plan, as they stand at this moment.
  void Prepare() {
    InstallTestRelease(old_release, root);
    WriteTestFile(At(L"screenshots\\mine.png"), "not managed");
    stage = StageTestRelease(new_release, plan, root);
  }

  // The operands of --apply-plan after the mode word, for what Prepare staged.
  [[nodiscard]] std::vector<std::wstring> ApplyOperands() const {
    const auto digest = [](const std::string& text) { return Utf8ToWide(HexDigestOf(text)); };
    return {root,
            stage,
            HandleText(parent.Get()),
            digest(new_release.ManifestText()),
            digest(PlanText(new_release, plan)),
            HandleText(lock.Get())};
  }
  [[nodiscard]] HelperResult Apply() { return Run(L"--apply-plan", ApplyOperands()); }
  [[nodiscard]] HelperResult Rollback() {
    return Run(L"--rollback-journal", {root, HandleText(parent.Get()), HandleText(lock.Get())});
  }
  [[nodiscard]] HelperResult Run(const std::wstring& mode, std::vector<std::wstring> operands,
                                 const std::function<void(DWORD)>& while_running = {}) {
    SetEnvironmentVariableW(L"TALVEX_TEST_REPORT", report.c_str());
    SetEnvironmentVariableW(L"TALVEX_TEST_STRAY_EVENT", HandleText(stray_event.Get()).c_str());
    operands.insert(operands.begin(), mode);
    return RunHelper(helper, operands, {parent.Get(), lock.Get(), stray_event.Get()}, while_running);
  }

  [[nodiscard]] std::wstring At(std::wstring_view relative) const {
    return root + L"\\" + std::wstring(relative);
  }
  // Every file below the root, the updater's own included, without empty folders.
  [[nodiscard]] Tree AllFiles() const {
    Tree tree = ReadTree(root);
    std::erase_if(tree, [](const auto& item) { return item.first.back() == L'\\'; });
    return tree;
  }
  // The client's files, without the updater's own; and the files that each release consists of.
  [[nodiscard]] Tree ClientFiles() const {
    Tree tree = AllFiles();
    std::erase_if(tree, [](const auto& item) {
      return item.first.starts_with(L".talvex-update") || item.first.starts_with(L"TalvexUpdateState.dat") ||
             item.first.starts_with(L"TalvexUpdateFailure.dat");
    });
    return tree;
  }
  [[nodiscard]] static Tree FilesOf(const TestRelease& release) {
    Tree tree{{L"screenshots\\mine.png", "not managed"}};
    for (const auto& [path, contents] : release.files) {
      std::wstring wide = Utf8ToWide(path);
      std::ranges::replace(wide, L'/', L'\\');
      tree[wide] = contents;
    }
    return tree;
  }

  ScratchDirectory scratch;
  std::wstring root = scratch / L"client";
  std::wstring helper = scratch / L"helper\\TalvexUpdateHelper.exe";
  std::wstring stage;
  std::wstring report = scratch / L"report.txt";  // of the restarted client
  TestRelease old_release{"1.0",
                          1,
                          {{"Talvex.exe", ReadTestFile(BuiltProgram(L"tests\\handoff_client.exe"))},
                           {"TalvexUpdateHelper.exe", "the helper of release 1.0"},
                           {"Data/a.bin", std::string(1'500'000, 'a')},
                           {"Data/deep/er/b.bin", "b"},
                           {"keep.txt", "unchanged"},
                           {"old/retired.bin", "retired"}}};
  TestRelease new_release{"2.0",
                          2,
                          {{"Talvex.exe", old_release.files.at("Talvex.exe")},
                           {"TalvexUpdateHelper.exe", ReadTestFile(BuiltProgram(L"TalvexUpdateHelper.exe"))},
                           {"Data/a.bin", std::string(2'500'000, 'A')},
                           {"Data/deep/er/b.bin", "bb"},
                           {"keep.txt", "unchanged"},
                           {"new/folder/c.bin", "c"}}};
  StagedPlan plan{{"Data/a.bin", "TalvexUpdateHelper.exe", "new/folder/c.bin", "Data/deep/er/b.bin"},
                  {"old/retired.bin"}};
  OwnedHandle parent = MakeInheritableEvent(true);  // stands for a client that has exited
  OwnedHandle lock = MakeInheritableMutex();
  OwnedHandle stray_event = MakeInheritableEvent(false);  // the helper has it, the client must not
};

}  // namespace talvex::test
