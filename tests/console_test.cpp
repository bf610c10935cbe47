// What the real helper prints and shows in the modes that change nothing.

#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "core/owned_handle.h"
#include "tests/support/helper_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

TEST(Console, AnswersTheDiagnosticModes) {
  ScratchDirectory scratch;
  const TestRelease release{"2024.06.1", 57, {{"a", "1"}, {"b", "2"}}};
  const std::wstring manifest = scratch / L"manifest.txt";
  const std::wstring signature = scratch / L"manifest.sig";
  WriteTestFile(manifest, release.ManifestText());
  WriteTestFile(signature, release.Signature());
  WriteTestFile(scratch / L"long.sig", std::string(1025, 'x'));
  MakeSparseFile(scratch / L"large.txt", 4'194'305);
  const std::string usage =
      "Usage: TalvexUpdateHelper.exe --guard-error <code> <parent-handle>\n"
      "       TalvexUpdateHelper.exe --verify-manifest <manifest> <signature>\n"
      "       TalvexUpdateHelper.exe --validate-path <relative-path>\n"
      "       TalvexUpdateHelper.exe --rollback-journal <client-root> <parent-handle> <lock-handle>\n"
      "       TalvexUpdateHelper.exe --apply-plan <client-root> <stage-root> <parent-handle> "
      "<manifest-sha256> <plan-sha256> <lock-handle>\r\n";
  const std::string too_large = "ERROR: The file is too large or is not a regular file.\r\n";
  struct {
    std::vector<std::wstring> arguments;
    DWORD exit_code;
    std::string console;
  } const cases[] = {
      {{}, 2, usage},
      {{L"--unknown"}, 2, usage},
      {{L"--validate-path "}, 2, usage},
      {{L"--VALIDATE-path", L"a/b.txt"}, 0, "OK: a\\b.txt\r\n"},
      {{L"--validate-path", L"../x"},
       1,
       "REJECTED: The update manifest contains an unsafe path segment.\r\n"},
      {{L"--validate-path", L"\xD800"},
       1,
       "REJECTED: The update manifest contains an unsafe relative path.\r\n"},
      {{L"--validate-path"}, 2, ""},
      {{L"--validate-path", L"a", L"b"}, 2, ""},
      {{L"--verify-manifest", manifest, signature}, 0, "OK release=2024.06.1 sequence=57 files=2\r\n"},
      {{L"--verify-manifest", manifest, manifest},
       1,
       "ERROR: The update key or signature does not use RSA-3072.\r\n"},
      {{L"--verify-manifest", manifest, scratch / L"long.sig"}, 1, too_large},
      {{L"--verify-manifest", scratch / L"large.txt", signature}, 1, too_large},
      {{L"--verify-manifest", manifest}, 2, ""},
      {{L"--guard-error", L"7"}, 2, ""},
      {{L"--guard-error", L"7", L"0"}, 1, ""},
      {{L"--rollback-journal", L"a", L"b"}, 2, ""},
      {{L"--apply-plan", L"1", L"2", L"3", L"4", L"5"}, 2, ""},
      {{L"--apply-plan", L"1", L"2", L"3", L"4", L"5", L"6", L"7"}, 2, ""},
  };
  for (const auto& c : cases) {
    const HelperResult result = RunHelper(BuiltProgram(L"TalvexUpdateHelper.exe"), c.arguments, {});
    EXPECT_EQ(result.exit_code, c.exit_code) << c.console;
    EXPECT_EQ(result.console, c.console);
    EXPECT_EQ(result.message, L"");
  }
}

TEST(GuardNotice, NamesTheCodeOnceTheClientIsGone) {
  const OwnedHandle parent = MakeInheritableEvent(true);
  const HelperResult result =
      RunHelper(BuiltProgram(L"TalvexUpdateHelper.exe"),
                {L"--guard-error", L"0x2A", HandleText(parent.Get())}, {parent.Get()});
  EXPECT_EQ(result.exit_code, 0u);
  EXPECT_EQ(result.message, L"Talvex was closed by its security monitor with code 0x2A.");
}

}  // namespace
}  // namespace talvex::test
