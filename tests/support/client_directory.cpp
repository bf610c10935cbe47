#include "tests/support/client_directory.h"

#include <algorithm>
#include <string_view>

#include "core/text_encoding.h"
#include "storage/client_root.h"

namespace talvex::test {

ClientDirectory::ClientDirectory() {
  const std::string client = ReadTestFile(BuiltProgram(L"tests\\handoff_client.exe"));
  const std::string helper_bytes = ReadTestFile(BuiltProgram(L"TalvexUpdateHelper.exe"));
  WriteTestFile(helper, helper_bytes);
  old_release = {"1.0",
                 1,
                 {{"Talvex.exe", client},
                  {"TalvexUpdateHelper.exe", "the helper of release 1.0"},
                  {"Data/a.bin", std::string(1'500'000, 'a')},
                  {"Data/deep/er/b.bin", "b"},
                  {"keep.txt", "unchanged"},
                  {"old/retired.bin", "retired"}}};
  new_release = {"2.0",
                 2,
                 {{"Talvex.exe", client},
                  {"TalvexUpdateHelper.exe", helper_bytes},
                  {"Data/a.bin", std::string(2'500'000, 'A')},
                  {"Data/deep/er/b.bin", "bb"},
                  {"keep.txt", "unchanged"},
                  {"new/folder/c.bin", "c"}}};
  plan = {{"Data/a.bin", "TalvexUpdateHelper.exe", "new/folder/c.bin", "Data/deep/er/b.bin"},
          {"old/retired.bin"}};
}

void ClientDirectory::Prepare() {
  InstallTestRelease(old_release, root);
  WriteTestFile(At(L"screenshots\\mine.png"), "not managed");
  stage = StageTestRelease(new_release, plan, root);
}

std::vector<std::wstring> ClientDirectory::ApplyOperands() const {
  return {root,
          stage,
          HandleText(parent.Get()),
          Utf8ToWide(HexDigestOf(new_release.ManifestText())),
          Utf8ToWide(HexDigestOf(PlanText(new_release, plan))),
          HandleText(lock.Get())};
}

HelperResult ClientDirectory::Run(const std::wstring& mode, std::vector<std::wstring> operands,
                                  const std::function<void(DWORD)>& while_running) {
  SetEnvironmentVariableW(L"TALVEX_TEST_REPORT", report.c_str());
  SetEnvironmentVariableW(L"TALVEX_TEST_STRAY_EVENT", HandleText(stray_event.Get()).c_str());
  operands.insert(operands.begin(), mode);
  return RunHelper(helper, operands, {parent.Get(), lock.Get(), stray_event.Get()}, while_running);
}

std::wstring ClientDirectory::At(std::wstring_view relative) const {
  return JoinPath(root, relative);
}

Tree ClientDirectory::AllFiles() const {
  Tree tree = ReadTree(root);
  std::erase_if(tree, [](const auto& item) { return item.first.back() == L'\\'; });
  return tree;
}

Tree ClientDirectory::ClientFiles() const {
  Tree tree = AllFiles();
  std::erase_if(tree, [](const auto& item) {
    return item.first.starts_with(L".talvex-update") || item.first.starts_with(L"TalvexUpdateState.dat") ||
           item.first.starts_with(L"TalvexUpdateFailure.dat");
  });
  return tree;
}

Tree ClientDirectory::FilesOf(const TestRelease& release) {
  Tree tree{{L"screenshots\\mine.png", "not managed"}};
  for (const auto& [path, contents] : release.files) {
    std::wstring wide = Utf8ToWide(path);
    std::replace(wide.begin(), wide.end(), L'/', L'\\');
    tree[wide] = contents;
  }
  return tree;
}

}  // namespace talvex::test
