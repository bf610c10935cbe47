// The entry point: splits the command line, selects a mode by its first word, and returns that mode's exit
// code.

#include <windows.h>

#include <shellapi.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <string_view>

#include "app/apply_mode.h"
#include "app/diagnostic_modes.h"
#include "app/guard_notice.h"
#include "app/reporting.h"
#include "app/rollback_mode.h"
#include "core/ascii_case.h"
#include "core/exit_code.h"
#include "core/local_memory.h"
#include "core/system_library.h"

namespace talvex {
namespace {

constexpr wchar_t kUsage[] =
    L"Usage: TalvexUpdateHelper.exe --guard-error <code> <parent-handle>\n"
    L"       TalvexUpdateHelper.exe --verify-manifest <manifest> <signature>\n"
    L"       TalvexUpdateHelper.exe --validate-path <relative-path>\n"
    L"       TalvexUpdateHelper.exe --rollback-journal <client-root> <parent-handle> <lock-handle>\n"
    L"       TalvexUpdateHelper.exe --apply-plan <client-root> <stage-root> <parent-handle> "
    L"<manifest-sha256> <plan-sha256> <lock-handle>";

// Each mode checks its own argument count.
struct Mode {
  std::wstring_view word;
  int (*run)(int argument_count, const wchar_t* const* arguments);
};
constexpr Mode kModes[] = {
    {L"--guard-error", RunGuardNotice},    {L"--verify-manifest", RunVerifyManifest},
    {L"--validate-path", RunValidatePath}, {L"--rollback-journal", RunRollbackMode},
    {L"--apply-plan", RunApplyMode},
};

const Mode* FindMode(std::wstring_view word) {
  const auto* const found = std::find_if(std::begin(kModes), std::end(kModes), [word](const Mode& mode) {
    return EqualIgnoringAsciiCase(word, mode.word);
  });
  return found == std::end(kModes) ? nullptr : found;
}

int RunMode() {
  int count = 0;
  const ArgumentVector arguments(CommandLineToArgvW(GetCommandLineW(), &count));
  if (arguments == nullptr) {
    return kExitUsage;
  }
  const Mode* const mode = count < 2 ? nullptr : FindMode(arguments[1]);
  try {
    if (mode != nullptr) {
      return mode->run(count, arguments.get());
    }
    WriteConsoleLine(kUsage);
    return kExitUsage;
  } catch (const std::bad_alloc&) {  // not even memory for a message
    return mode != nullptr ? kExitFailed : kExitUsage;
  }
}

}  // namespace
}  // namespace talvex

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR, int) {
  talvex::RestrictDllSearch();
  return talvex::RunMode();
}
