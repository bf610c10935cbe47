// What the real helper prints and how it exits in the modes that change nothing, and for a command line that
// no mode can use. It never shows a message box here.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/helper_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

void ExpectAnswer(const std::vector<std::wstring>& arguments, DWORD exit_code, const std::string& console) {
  const HelperResult result = RunHelper(BuiltProgram(L"TalvexUpdateHelper.exe"), arguments, {});
  EXPECT_EQ(result.exit_code, exit_code) << testing::PrintToString(arguments);
  EXPECT_EQ(result.console, console);
  EXPECT_EQ(result.message, L"");
}

TEST(Console, ShowsTheUsageForAnUnknownMode) {
  const std::string usage =
      "Usage: TalvexUpdateHelper.exe --guard-error <code> <parent-handle>\n"
      "       TalvexUpdateHelper.exe --verify-manifest <manifest> <signature>\n"
      "       TalvexUpdateHelper.exe --validate-path <relative-path>\n"
      "       TalvexUpdateHelper.exe --rollback-journal <client-root> <parent-handle> <lock-handle>\n"
      "       TalvexUpdateHelper.exe --apply-plan <client-root> <stage-root> <parent-handle> "
      "<manifest-sha256> <plan-sha256> <lock-handle>\r\n";
  ExpectAnswer({}, 2, usage);
  ExpectAnswer({L"--validate-path "}, 2, usage);
}

TEST(Console, EveryModeDemandsItsNumberOfOperandsInSilence) {
  const std::pair<const wchar_t*, std::size_t> modes[] = {{L"--guard-error", 2},
                                                          {L"--verify-manifest", 2},
                                                          {L"--validate-path", 1},
                                                          {L"--rollback-journal", 3},
                                                          {L"--apply-plan", 6}};
  for (const auto& [mode, operands] : modes) {
    for (const std::size_t given : {operands - 1, operands + 1}) {
      std::vector<std::wstring> arguments(given, L"1");
      arguments.insert(arguments.begin(), mode);
      ExpectAnswer(arguments, 2, "");
    }
  }
  ExpectAnswer({L"--guard-error", L"7", L"0"}, 1, "");  // no handle
}

TEST(Console, JudgesAPath) {
  ExpectAnswer({L"--VALIDATE-path", L"a/b.txt"}, 0, "OK: a\\b.txt\r\n");
  ExpectAnswer({L"--validate-path", L"../x"}, 1,
               "REJECTED: The update manifest contains an unsafe path segment.\r\n");
  ExpectAnswer({L"--validate-path", L"\xD800"}, 1,
               "REJECTED: The update manifest contains an unsafe relative path.\r\n");
}

TEST(Console, ProvesAManifestBelowItsSizeLimits) {
  ScratchDirectory scratch;
  const TestRelease release{"2024.06.1", 57, {{"a", "1"}, {"b", "2"}}};
  const std::wstring manifest = scratch / L"manifest.txt";
  const std::wstring signature = scratch / L"manifest.sig";
  WriteTestFile(manifest, release.ManifestText());
  WriteTestFile(signature, release.Signature());
  WriteTestFile(scratch / L"long.sig", std::string(1025, 'x'));
  MakeSparseFile(scratch / L"large.txt", 4'194'305);
  const std::string too_large = "ERROR: The file is too large or is not a regular file.\r\n";
  ExpectAnswer({L"--verify-manifest", manifest, signature}, 0,
               "OK release=2024.06.1 sequence=57 files=2\r\n");
  ExpectAnswer({L"--verify-manifest", manifest, scratch / L"long.sig"}, 1, too_large);
  ExpectAnswer({L"--verify-manifest", scratch / L"large.txt", signature}, 1, too_large);
}

}  // namespace
}  // namespace talvex::test
