// A DLL planted beside one of the programs, under the name of one of Windows' own, is never loaded. Two walls
// keep it out, and each of them does so alone.

#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "core/text_encoding.h"
#include "tests/support/helper_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

constexpr DWORD kHijacked = 99;  // the exit code of a program that has loaded a planted DLL
const std::wstring kProbe = L"tests\\dll_probe.exe";

class PlantedDlls : public testing::Test {
 protected:
  // Those that the programs load, and those that Windows loads for them by their bare names. Not among them:
  // version.dll and imm32.dll, which Wine's own shell32 and user32 load before an entry runs. Wine prefers
  // its own DLLs to those beside a program; tests/CMakeLists.txt asks it for Windows' order with the same
  // names. The last one is nobody's.
  PlantedDlls() {
    const std::string planted = ReadTestFile(BuiltProgram(L"tests\\planted_dll.dll"));
    for (const std::wstring name : {L"bcrypt", L"bcryptprimitives", L"comctl32", L"crypt32", L"cryptbase",
                                    L"dwmapi", L"msasn1", L"ncrypt", L"uxtheme", L"talvex_planted"}) {
      WriteTestFile(place_ / (name + L".dll"), planted);
    }
  }

  // Runs a program of the build from the place of the planted DLLs.
  [[nodiscard]] HelperResult Run(const std::wstring& program,
                                 const std::vector<std::wstring>& arguments) const {
    const std::wstring copy = place_ / program.substr(program.find(L'\\') + 1);
    CopyFileW(BuiltProgram(program).c_str(), copy.c_str(), TRUE);  // from the second time on it is there
    return RunHelper(copy, arguments, {});
  }

  ScratchDirectory place_;
};

TEST_F(PlantedDlls, AreKeptOutByEachWallAlone) {
  for (const std::wstring wall : {L"full-path", L"versioned", L"versioned-on-old-windows", L"second-wall"}) {
    EXPECT_EQ(Run(kProbe, {wall, L"bcrypt", L"crypt32", L"talvex_planted"}).exit_code, 1u)
        << WideToUtf8(wall);
  }
}

// A test that cannot fail proves nothing. Some of Windows' own are mapped before a program starts.
TEST_F(PlantedDlls, AreLoadedWithoutAWall) {
  EXPECT_EQ(Run(kProbe, {L"no-wall", L"talvex_planted"}).exit_code, kHijacked);
  EXPECT_EQ(Run(kProbe, {L"no-wall", L"bcrypt", L"crypt32"}).exit_code, kHijacked);
}

TEST_F(PlantedDlls, AreLoadedByNoneOfThePrograms) {
  TestRelease release{"1.0", 1, {}};
  for (const std::string name : {"Talvex.exe", "TalvexUpdateHelper.exe"}) {
    release.files[name] = ReadTestFile(BuiltProgram(Utf8ToWide(name)));
  }
  InstallTestRelease(release, place_.Path());
  WriteTestFile(place_ / L"TalvexUpdate.dll", ReadTestFile(BuiltProgram(L"TalvexUpdate.dll")));
  const std::wstring cache = place_ / L".talvex-update-cache";
  const struct {
    std::wstring program;
    std::vector<std::wstring> arguments;
    std::string says;
  } cases[] = {
      {L"TalvexUpdateHelper.exe",
       {L"--verify-manifest", cache + L"\\manifest.txt", cache + L"\\manifest.sig"},
       "OK release=1.0 sequence=1 files=2\r\n"},
      {L"TalvexUpdateHelper.exe", {L"--rollback-journal", L"", L"1", L"1"}, ""},  // shows a message box
      {L"TalvexPublish.exe",
       {L"status", place_.Path(), L"--key", BuiltProgram(L"development-key\\public.pem")},
       "Installed release=1.0"},
      {L"Talvex.exe", {}, ""},
      {L"TalvexSettle.exe", {place_.Path()}, "installed: 1.0, sequence 1\r\n"},
      // Version 6 of the common controls, as the helper's manifest says, not the one in the system directory.
      {kProbe, {L"window"}, "\\winsxs\\x86_microsoft.windows.common-controls_6595b64144ccf1df_6."},
      // And none in place of Windows' own that is missing.
      {kProbe, {L"missing"}, "Windows could not calculate a SHA-256 digest.\r\n"},
  };
  for (const auto& c : cases) {
    const HelperResult result = Run(c.program, c.arguments);
    EXPECT_NE(result.exit_code, kHijacked) << WideToUtf8(c.program);
    EXPECT_NE(result.console.find(c.says), std::string::npos) << result.console;
  }
}

}  // namespace
}  // namespace talvex::test
