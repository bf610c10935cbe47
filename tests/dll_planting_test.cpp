// A DLL planted beside one of the programs, under the name of one of Windows' own, is never loaded. Two walls
// keep it out, and each of them does so alone.

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cwctype>
#include <iterator>
#include <string>
#include <vector>

#include "core/system_library.h"
#include "core/text_encoding.h"
#include "tests/support/helper_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

// Those that the programs load, and those that Windows loads for them by their bare names. Not among them:
// version.dll and imm32.dll, which Wine's own shell32 and user32 load before an entry runs. Wine prefers its
// own DLLs to those beside a program; tests/CMakeLists.txt asks it for Windows' order with the same names.
const std::vector<std::wstring> kNames = {L"bcrypt",    L"bcryptprimitives", L"comctl32", L"crypt32",
                                          L"cryptbase", L"dwmapi",           L"msasn1",   L"ncrypt",
                                          L"uxtheme",   L"talvex_planted"};

const std::wstring kOurName = L"talvex_planted";  // nobody's

class PlantedDlls : public testing::Test {
 protected:
  PlantedDlls() {
    const std::string planted = ReadTestFile(BuiltProgram(L"tests\\planted_dll.dll"));
    for (const std::wstring& name : kNames) {
      WriteTestFile(place_ / (name + L".dll"), planted);
    }
  }

  // Runs a program of the build from the place of the planted DLLs, and yields those that were loaded.
  std::vector<std::wstring> LoadedBy(const std::wstring& program,
                                     const std::vector<std::wstring>& arguments) {
    const std::wstring copy = place_ / program.substr(program.find(L'\\') + 1);
    CopyFileW(BuiltProgram(program).c_str(), copy.c_str(), TRUE);  // from the second time on it is there
    result_ = RunHelper(copy, arguments, {});
    std::vector<std::wstring> loaded;
    std::ranges::copy_if(kNames, std::back_inserter(loaded), [&](const std::wstring& name) {
      return DeleteFileW((place_ / (name + L".dll.loaded")).c_str()) != 0;
    });
    return loaded;
  }

  ScratchDirectory place_;
  HelperResult result_;
};

// First, that planted DLLs would be loaded: a test that cannot fail proves nothing. Windows does not let
// every one of its names be taken (some are mapped before a program starts), but it has none that is called
// like ours.
TEST_F(PlantedDlls, WouldBeLoadedWithoutAWall) {
  int loaded = 0;
  for (const std::wstring name : {L"bcrypt", L"comctl32", L"crypt32"}) {
    loaded += LoadedBy(L"tests\\dll_probe.exe", {L"no-wall", name}).empty() ? 0 : 1;
  }
  std::printf("counted: %d of 3 planted DLLs would be loaded without a wall\n", loaded);
  EXPECT_EQ(LoadedBy(L"tests\\dll_probe.exe", {L"no-wall", kOurName}), std::vector<std::wstring>{kOurName});
}

TEST_F(PlantedDlls, AreKeptOutByEachWallAlone) {
  const struct {
    const wchar_t* wall;
    std::vector<std::wstring> names;
  } cases[] = {
      {L"full-path", {L"bcrypt", L"crypt32", kOurName}},
      {L"versioned", {L"comctl32", kOurName}},
      // A Windows 7 without its update of 2011 has neither the second wall nor the flag of the first.
      {L"versioned-on-old-windows", {L"comctl32", kOurName}},
      {L"second-wall", {L"bcrypt", L"comctl32", L"crypt32", kOurName}}};
  for (const auto& c : cases) {
    for (const std::wstring& name : c.names) {
      SCOPED_TRACE(WideToUtf8(c.wall + (L" " + name)));
      std::vector<std::wstring> loaded = LoadedBy(L"tests\\dll_probe.exe", {c.wall, name});
      if (name == L"comctl32") {
        std::erase(loaded, L"uxtheme");  // which it loads in its turn, and the second wall keeps out
      }
      EXPECT_EQ(loaded, std::vector<std::wstring>{});
      EXPECT_EQ(result_.exit_code, name == kOurName ? 1u : 0u);
    }
  }
}

TEST_F(PlantedDlls, AreLoadedByNoneOfThePrograms) {
  TestRelease release{"1.0", 1, {}};
  for (const std::string name : {"Talvex.exe", "TalvexUpdateHelper.exe"}) {
    release.files[name] = ReadTestFile(BuiltProgram(Utf8ToWide(name)));
  }
  InstallTestRelease(release, place_.Path());
  const std::wstring cache = place_ / L".talvex-update-cache";
  const struct {
    std::wstring program;
    std::vector<std::wstring> arguments;
    std::string says;
  } cases[] = {
      {L"TalvexUpdateHelper.exe",
       {L"--verify-manifest", cache + L"\\manifest.txt", cache + L"\\manifest.sig"},
       "OK release=1.0 sequence=1 files=2\r\n"},
      {L"TalvexPublish.exe",
       {L"verify", cache, L"--public-key", BuiltProgram(L"development-key\\public.pem")},
       "OK"},
      {L"Talvex.exe", {}, "running release=1.0 sequence=1\n"},
      {L"tests\\dll_probe.exe", {L"both-walls", L"window"}, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(WideToUtf8(c.program));
    EXPECT_EQ(LoadedBy(c.program, c.arguments), std::vector<std::wstring>{});
    EXPECT_EQ(result_.exit_code, 0u);
    EXPECT_TRUE(result_.console.starts_with(c.says)) << result_.console;
  }
}

TEST_F(PlantedDlls, DoNotReplaceOneThatIsMissing) {
  EXPECT_EQ(LoadedBy(L"tests\\dll_probe.exe", {L"missing", L"hash"}), std::vector<std::wstring>{});
  EXPECT_EQ(result_.console,
            "Windows could not calculate a SHA-256 digest.\r\nWindows could not hash an update target.\r\n");
}

// The manifest of the helper asks for version 6 of the common controls, which Windows keeps beside the one in
// the system directory.
TEST(VersionedLibraries, FollowTheManifest) {
  const std::wstring helper = BuiltProgram(L"TalvexUpdateHelper.exe");
  ACTCTXW request{};
  request.cbSize = sizeof(request);
  request.dwFlags = ACTCTX_FLAG_RESOURCE_NAME_VALID;
  request.lpSource = helper.c_str();
  request.lpResourceName = MAKEINTRESOURCEW(1);
  const HANDLE context = CreateActCtxW(&request);
  ASSERT_NE(context, INVALID_HANDLE_VALUE);
  ULONG_PTR cookie = 0;
  ASSERT_TRUE(ActivateActCtx(context, &cookie));
  const HMODULE library = LoadVersionedSystemLibrary(L"comctl32.dll");
  DeactivateActCtx(0, cookie);
  ReleaseActCtx(context);
  std::wstring path(MAX_PATH, L'\0');
  path.resize(GetModuleFileNameW(library, path.data(), MAX_PATH));
  std::ranges::transform(path, path.begin(),
                         [](wchar_t unit) { return static_cast<wchar_t>(towlower(unit)); });
  EXPECT_NE(path.find(L"\\winsxs\\x86_microsoft.windows.common-controls_6595b64144ccf1df_6."),
            std::wstring::npos)
      << WideToUtf8(path);
}

}  // namespace
}  // namespace talvex::test
