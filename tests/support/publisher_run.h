#pragma once

// TalvexPublish.exe, run as release engineers run it, on releases made of the programs of this build.

#include <gtest/gtest.h>

#include <windows.h>

#include <map>
#include <string>
#include <vector>

#include "core/text_encoding.h"
#include "tests/support/helper_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {

using Words = std::vector<std::wstring>;
using Files = std::map<std::string, std::string>;  // path -> contents; in an edit, "" removes the file

inline const std::wstring kKeyFile = BuiltProgram(L"development-key\\public.pem");
inline const std::wstring kOtherKeyFile = BuiltProgram(L"fixtures\\other-key\\public.pem");
inline const std::string kClientName = "Talvex.exe";
inline const std::string kHelperName = "TalvexUpdateHelper.exe";
inline const std::string kClient = ReadTestFile(BuiltProgram(L"Talvex.exe"));
inline const std::string kHelper = ReadTestFile(BuiltProgram(L"TalvexUpdateHelper.exe"));
inline const std::string kX(1'500'000, 'x');

inline TestRelease GoodRelease() {
  return {"2.0", 20, {{kClientName, kClient}, {kHelperName, kHelper}, {"data/X.bin", kX}}};
}

class Publisher : public testing::Test {
 protected:
  // Runs the program, expects its exit code and each of the texts, and returns all that it says.
  static std::string Publish(const Words& words, DWORD exit_code, const std::vector<std::string>& texts) {
    const HelperResult result = RunHelper(BuiltProgram(L"TalvexPublish.exe"), words, {});
    EXPECT_EQ(result.exit_code, exit_code) << result.console;
    for (const std::string& text : texts) {
      EXPECT_NE(result.console.find(text), std::string::npos) << "not said: " << text << "\n"
                                                              << result.console;
    }
    return result.console;
  }
  [[nodiscard]] Words ReleaseWords() const {
    return {L"release",  client,        L"--out", out,      L"--name",
            L"2.0-beta", L"--sequence", L"12",    L"--key", kKeyFile};
  }
  // Puts a signed manifest where a web server would have it, and files beside it.
  static void Write(const TestRelease& release, const Files& files, const std::wstring& directory,
                    const std::wstring& signing_key = kDevelopmentKey) {
    WriteTestFile(directory + L"\\manifest.txt", release.ManifestText());
    WriteTestFile(directory + L"\\manifest.sig", SignWithKey(release.ManifestText(), signing_key));
    for (const auto& [path, contents] : files) {
      WriteTestFile(directory + L"\\files\\" + Utf8ToWide(path), contents);
    }
  }

  ScratchDirectory scratch;
  std::wstring client = scratch / L"client";
  std::wstring out = scratch / L"out";
};

}  // namespace talvex::test
