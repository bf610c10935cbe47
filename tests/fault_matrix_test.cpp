// A fault at every call: whatever fails and wherever the helper dies, the client directory ends as the old
// release or as the new one, byte for byte, with the state and the cache that belong to it.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "core/text_encoding.h"
#include "tests/support/helper_run.h"
#include "tests/support/small_client.h"

namespace talvex::test {
namespace {

constexpr std::wstring_view kFilesRestored = L"\n\nYour existing files were restored.";
constexpr wchar_t kRolledBack[] =
    L"The last update could not start correctly, so Talvex restored the previous client files. A newer "
    L"update "
    L"is required before this release will be tried again.";
constexpr std::wstring_view kNotRolledBack = L"Talvex could not restore the previous client files.\n\n";
constexpr wchar_t kMarker[] = L"TalvexUpdateFailure.dat";
constexpr wchar_t kJournal[] = L".talvex-update\\previous\\rollback.journal";

// Every text that a fault at a call may bring up, without those that only wrong data can.
constexpr std::wstring_view kTexts[] = {
    L"A required rollback copy is missing.",
    L"A retired managed file was not removed.",
    L"A staged update file failed verification.",
    L"An installed update file failed verification.",
    L"An update directory is unsafe.",
    L"An update target changed during installation.",
    L"An update target has unsafe file links.",
    L"An update target is not a regular file.",
    L"An updated file could not be flushed safely before restart.",
    L"An updater recovery source is not a regular file.",
    L"An updater rollback target has unsafe file links.",
    L"An updater rollback target is not a regular file.",
    L"An updater work directory is unsafe.",
    L"Could not atomically replace an update file.",
    L"Could not create a rollback copy for a retired update file.",
    L"Could not create an updater recovery copy.",
    L"Could not flush an updater recovery copy.",
    L"Could not inspect an updater work directory.",
    L"Could not install a new update file.",
    L"Could not read the complete file.",
    L"Could not remove a file during updater rollback.",
    L"Could not remove an old updater directory.",
    L"Could not remove old updater work data.",
    L"Could not save the update failure marker.",
    L"Talvex could not restore the previous client files.",  // memory ran out
    L"Talvex could not retain its rollback ownership lock.",
    L"Talvex could not retain its update ownership lock.",
    L"Talvex did not close in time for rollback.",
    L"Talvex did not close in time for the update.",
    L"The client directory is missing or is a reparse point.",
    L"The file is too large or is not a regular file.",
    L"The rollback cannot prove a retired managed file.",
    L"The rollback data of this update could not be removed.",
    L"The rollback helper received invalid transaction data.",
    L"The rollback ownership handles were lost.",
    L"The update apply plan cannot prove a managed file removal.",
    L"The update failed.",
    L"The update failed. Your existing files were restored.",  // for a failure that left no text
    L"The update finished, but Talvex could not restart with its health lock.",
    L"The update finished, but Talvex could not set its restart handoff.",
    L"The update health lock could not be inherited.",
    L"The update helper could not prepare rollback recovery.",
    L"The update helper received invalid transaction data.",
    L"The update manifest signature is invalid.",
    L"The update ownership lock was lost.",
    L"The update staging directory is outside this Talvex installation.",
    L"The update target is too large or is not a regular file.",
    L"The verified update cache directory is unsafe.",
    L"Windows could not calculate a SHA-256 digest.",
    L"Windows could not hash an update target.",
    L"Your existing files were restored.",
};
constexpr std::wstring_view kClearingTexts[] = {
    L"An updater work directory is unsafe.",
    L"Could not inspect an updater work directory.",
    L"Could not remove an old updater directory.",
    L"Could not remove old updater work data.",
    L"The rollback data of this update could not be removed.",
};
// And those that Windows' own text follows, or the path of a copy.
constexpr std::wstring_view kTextBeginnings[] = {
    L"Automatic restoration was incomplete. The rollback copy is at:\n",
    L"Could not create an update directory: ",
    L"Could not create file: ",
    L"Could not flush file: ",
    L"Could not open file for hashing: ",
    L"Could not open file: ",
    L"Could not resolve an update path: ",
    L"Could not resolve the client directory: ",
    L"Could not save the installed update state: ",
    L"Could not save the update rollback journal: ",
    L"Could not save the verified update cache: ",
    L"Could not write file: ",
};

bool IsDescribed(std::wstring_view text) {
  return std::ranges::find(kTexts, text) != std::end(kTexts) ||
         std::ranges::any_of(kTextBeginnings, [&](std::wstring_view beginning) {
           return text.starts_with(beginning) && text.size() > beginning.size();
         });
}

const TestRelease kOlder{"0.9",
                         1,
                         {{"Talvex.exe", "older client"},
                          {"TalvexUpdateHelper.exe", "the helper"},
                          {"Data/deep/a.bin", "older a"},
                          {"old/retired.bin", "retired"}}};
const TestRelease kOld{"1.0",
                       2,
                       {{"Talvex.exe", "old client"},
                        {"TalvexUpdateHelper.exe", "the helper"},
                        {"Data/deep/a.bin", "old a"},
                        {"old/retired.bin", "retired"}}};
const TestRelease kNew{"2.0",
                       3,
                       {{"Talvex.exe", "new client"},
                        {"TalvexUpdateHelper.exe", "the helper"},
                        {"Data/deep/a.bin", "new a"},
                        {"new/folder/b.bin", "new b"}}};
const TestRelease kNewWithoutRetires{"2.0",
                                     3,
                                     {{"Talvex.exe", "new client"},
                                      {"TalvexUpdateHelper.exe", "the helper"},
                                      {"Data/deep/a.bin", "new a"},
                                      {"new/folder/b.bin", "new b"},
                                      {"old/retired.bin", "retired"}}};

SmallClient& Client() {
  static SmallClient client(kOlder, kOld);
  return client;
}

// A transaction that faults are put into.
struct Scenario {
  const char* name;
  const TestRelease* next;  // after kOld
  bool is_rollback;
  Tree start;
  Tree old_files;  // what the old release is here
  std::size_t first_call = 0;
  RunRecord clean = {};
  Tree end = {};  // of the clean run
};

// Starts the directory afresh; `now`: what it is known to be.
RunRecord RunScenario(const Scenario& scenario, const FaultPoint& fault = {}, const Tree* now = nullptr) {
  SmallClient& client = Client();
  client.Become(scenario.start, now == nullptr ? client.Read() : *now);
  client.next_process_id = 1000;
  return scenario.is_rollback ? client.Rollback(fault) : client.Apply(fault);
}

std::size_t FirstCall(const RunRecord& record, std::string_view name, std::wstring_view text_end) {
  const auto found = std::ranges::find_if(record.calls, [&](const ApiCall& call) {
    return call.name == name && !call.texts.empty() && call.texts[0].ends_with(text_end);
  });
  return static_cast<std::size_t>(found - record.calls.begin());
}

// The old release, installed by an update whose rollback data is still there.
const Tree& UpdatedClient() {
  static const Tree tree = [] {
    Client().StageAgain();
    EXPECT_EQ(Client().Apply().exit_code, 0);
    return Client().Read();
  }();
  return tree;
}

void Offer(const TestRelease& next) {
  if (Client().new_release.ManifestText() != next.ManifestText()) {
    Client().Offer(kOld, next);
  }
  Client().settings.list_backwards = &next == &kNewWithoutRetires;
}

std::vector<Scenario> MakeScenarios(const TestRelease& next) {
  SmallClient& client = Client();
  const auto run = [&](Scenario scenario, int exit_code, const Tree& files) {
    scenario.clean = RunScenario(scenario);
    scenario.end = client.Read();
    EXPECT_EQ(scenario.clean.exit_code, exit_code);
    for (const ApiCall& call : scenario.clean.calls) {  // nothing is relied on that could still be lost
      if (call.name == "CopyFileW" || call.name == "ReplaceFileW") {
        const std::wstring& written = call.texts[call.name == "CopyFileW" ? 1 : 0];
        EXPECT_TRUE(scenario.clean.IsFlushed(written)) << WideToUtf8(written);
      }
    }
    EXPECT_EQ(scenario.clean.violations, std::vector<std::string>());
    EXPECT_EQ(TreeDifference(SmallClient::ClientFiles(scenario.end), files), "");
    return scenario;
  };
  client.Become(UpdatedClient());
  Offer(next);
  client.StageAgain();
  const Tree before = client.Read();
  const Scenario update = run({"update", &next, false, before, client.old_files}, 0, client.new_files);
  const Scenario rollback =
      run({"rollback", &next, true, client.Read(), client.old_files}, 0, client.RolledBack());

  const FaultPoint between_two_changes{Fault::kDieAfter, FirstCall(update.clean, "ReplaceFileW", L"a.bin")};
  EXPECT_TRUE(RunScenario(update, between_two_changes).died);
  const Scenario half = run({"rollback of half an update", &next, true, client.Read(), client.old_files}, 0,
                            client.RolledBack());

  // The last proof of an update fails, as the player has edited a file that it does not replace.
  client.Become(before);
  WriteTestFile(client.root + L"\\TalvexUpdateHelper.exe", "The helper");
  Tree edited = client.old_files;
  edited[L"TalvexUpdateHelper.exe"] = "The helper";
  std::swap(client.old_files, edited);
  Scenario restoration =
      run({"restoration", &next, false, client.Read(), client.old_files}, 1, client.old_files);
  std::swap(client.old_files, edited);
  EXPECT_EQ(restoration.clean.message,
            L"An installed update file failed verification.\n\nYour existing files were restored.");
  restoration.first_call = FirstCall(restoration.clean, "CreateFileW", L"previous\\rollback.journal");
  return {update, rollback, half, restoration};
}

constexpr std::size_t kScenarioCount = 8;

// The first four retire a file and list directories by name; the others retire none and list them backwards.
const Scenario& ScenarioAt(std::size_t index) {
  static const std::vector<Scenario> scenarios[] = {MakeScenarios(kNew), MakeScenarios(kNewWithoutRetires)};
  const Scenario& scenario = scenarios[index / 4][index % 4];
  Offer(*scenario.next);
  return scenario;
}

Tree WithMarker(Tree files) {
  files[kMarker] = Client().RolledBack().at(kMarker);
  return files;
}

// The journal of the update that has installed the old release still stands.
constexpr char kEarlierRollback[] = "old release with its own rollback";

struct Recovery {
  std::string name;
  std::string wrong;
};

// Carries out what may follow on `tree`, which a helper has left behind: the rollback and an update after it,
// and without a journal of the run's own also the update alone. (A client settles an update before it starts
// another one, which would clear the copies.)
Recovery Recover(const Scenario& scenario, const Tree& tree) {
  SmallClient& client = Client();
  const Tree files = SmallClient::ClientFiles(tree);
  Recovery recovery;
  const auto follow = [&](const char* step, const RunRecord& record, int exit_code, const Tree& expected) {
    if (record.exit_code != exit_code) {
      recovery.wrong += std::string(step) + " ends otherwise: " + WideToUtf8(record.message) + "\n";
    }
    for (const std::string& violation : record.violations) {
      recovery.wrong += std::string("in ") + step + ": " + violation + "\n";
    }
    recovery.wrong += TreeDifference(SmallClient::ClientFiles(client.Read()), expected);
  };
  const auto update = [&](Tree before) {
    const auto marker = before.extract(kMarker);
    Tree expected = client.new_files;
    if (!marker.empty()) {
      expected[kMarker] = marker.mapped();
    }
    client.StageAgain();
    WriteTestFile(client.root + L"\\TalvexUpdateHelper.exe", "the helper");  // what a player may have edited
    follow("the next update", client.Apply(), 0, expected);
  };
  client.next_process_id = 2000;
  const bool installed = files == client.new_files;
  const Tree old_files = scenario.is_rollback ? WithMarker(scenario.old_files) : scenario.old_files;
  Tree rolled_back = files;
  int exit_code = 0;
  if (client.HasOwnJournal(tree)) {
    recovery.name = installed ? "new release" : "old release by rollback";
    rolled_back = WithMarker(scenario.old_files);
  } else if (tree.contains(kJournal)) {
    recovery.name = kEarlierRollback;
    recovery.wrong = TreeDifference(files, old_files);
    rolled_back = client.Installed(kOlder);
    rolled_back[kMarker] = HexDigestOf(kOld.ManifestText()) + "\n";
  } else {
    recovery.name = installed ? "new release" : "old release";
    recovery.wrong = installed ? "" : TreeDifference(files, old_files);
    exit_code = 1;
  }
  const auto watch = client.settings.after_change;
  if (recovery.name == kEarlierRollback) {
    client.settings.after_change = {};  // it watches over the files of another release
  }
  follow("the rollback", client.Rollback(), exit_code, rolled_back);
  update(rolled_back);
  client.settings.after_change = watch;
  if (!client.HasOwnJournal(tree)) {
    client.Become(tree);
    update(files);
  }
  return recovery;
}

// What a run that came to its end says has to agree with what it has done.
std::string CheckReport(const Scenario& scenario, const RunRecord& record, const Tree& tree) {
  const bool own_journal = Client().HasOwnJournal(tree);
  const Tree files = SmallClient::ClientFiles(tree);
  const std::wstring& message = record.message;
  if (record.exit_code == 0) {
    const bool told = scenario.is_rollback ? message == kRolledBack
                                           : message.empty() && record.client_started && own_journal;
    return (told ? "" : "exit code 0 without what belongs to it\n") +
           TreeDifference(files, scenario.is_rollback ? WithMarker(scenario.old_files) : Client().new_files);
  }
  // The reason, then what became of the files.
  const bool not_rolled_back = message.starts_with(kNotRolledBack);
  const std::size_t gap = not_rolled_back ? std::wstring::npos : message.find(L"\n\n");
  const std::wstring_view text = message;
  const bool described = gap == std::wstring::npos
                             ? IsDescribed(text.substr(not_rolled_back ? kNotRolledBack.size() : 0))
                             : IsDescribed(text.substr(0, gap)) && IsDescribed(text.substr(gap + 2));
  if (record.exit_code != 1 || !described) {
    return "a failure without its exit code or its text\n";
  }
  if (scenario.is_rollback) {
    return own_journal ? "" : "a failed rollback without its journal\n";
  }
  if (message.starts_with(L"The update finished, but ") ||
      message == L"The update health lock could not be inherited.") {
    return TreeDifference(files, Client().new_files);
  }
  // Restored, whether or not the copies could be cleared away.
  if (gap != std::wstring::npos &&
      std::ranges::find(kClearingTexts, text.substr(gap + 2)) != std::end(kClearingTexts)) {
    return TreeDifference(files, scenario.old_files);
  }
  const bool restored = message.ends_with(kFilesRestored);
  if (restored || (gap == std::wstring::npos && message != L"The update failed.")) {
    return (own_journal ? "the old release with a journal\n" : "") +
           TreeDifference(files, scenario.old_files);
  }
  return "";
}

struct Mode {
  const char* name;
  Fault fault;
  DWORD code = 0;
  std::string_view only = {};  // the calls it is for; empty: every call
  int passes_after = 0;        // failures with a code that may pass; 0: another code
};
const Mode kModes[] = {
    {"FailsOnce", Fault::kFail},
    {"FailsFromHereOn", Fault::kFailFromHere},
    {"DiesBefore", Fault::kDieBefore},
    {"DiesAfter", Fault::kDieAfter},
    {"DiesInside", Fault::kDieInside, 0, "CopyFileW"},
    {"OutOfMemory", Fault::kOutOfMemory},
    {"PassesAfterOne", Fault::kFail, 0, {}, 1},
    {"PassesAfterSeven", Fault::kFail, 0, {}, 7},
    {"DeletePending", Fault::kDeletePending, 0, "DeleteFileW"},
    {"RemoveReplacedFails", Fault::kFail, ERROR_UNABLE_TO_REMOVE_REPLACED, "ReplaceFileW"},
    {"MoveReplacementFails", Fault::kFail, ERROR_UNABLE_TO_MOVE_REPLACEMENT, "ReplaceFileW"},
    {"MoveReplacementFailsHalfWay", Fault::kFail, ERROR_UNABLE_TO_MOVE_REPLACEMENT_2, "ReplaceFileW"},
};
constexpr std::size_t kModesForAll = 9;

constexpr DWORD kTransientCodes[] = {ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION, ERROR_LOCK_VIOLATION,
                                     ERROR_BUSY, ERROR_USER_MAPPED_FILE};

// Of every how many calls one is tried: each of an update in the ways in which a call fails or the helper
// dies, an even sample of the rest. (A step that 2 or 5 divided would always meet the same code.)
std::size_t StepOf(std::size_t scenario, const Mode& mode) {
  const bool is_complete = scenario == 0 && mode.passes_after == 0;
  return is_complete || !mode.only.empty() ? 1 : scenario < 4 ? 3 : 11;
}

constexpr std::wstring_view kFileEndings[] = {L".exe", L".bin", L".dat", L".txt", L".sig"};

enum class Retry { kAlways, kNever, kPerhaps };

// Whether a call that fails in passing is tried again. Perhaps: where the same call is made in several
// places.
Retry RetryOf(const Scenario& scenario, const ApiCall& call) {
  const std::wstring path = call.texts.empty() ? L"" : call.texts[0] + L"\\";
  const bool is_temporary = path.find(L".new") != std::wstring::npos;
  const bool is_cleared = path.find(L"\\.talvex-update\\") != std::wstring::npos && !is_temporary;
  if (call.name == "MoveFileExW") {
    return call.texts.size() == 2 ? Retry::kAlways : Retry::kNever;
  }
  if (call.name == "ReplaceFileW" || call.name == "CopyFileW") {
    return Retry::kAlways;
  }
  if (call.name == "DeleteFileW" || call.opening == Opening::kToHold) {
    return is_cleared ? Retry::kNever : Retry::kAlways;
  }
  switch (call.opening) {
    case Opening::kToWrite:
    case Opening::kToCopy:
      return Retry::kAlways;
    case Opening::kToHash:
      return Retry::kNever;
    case Opening::kToLook:
      return scenario.is_rollback || scenario.first_call != 0 ? Retry::kAlways : Retry::kPerhaps;
    default:
      // The restoration alone looks at files only in order to change them.
      if (scenario.first_call != 0 && call.name == "GetFileAttributesW" &&
          std::ranges::any_of(kFileEndings,
                              [&](std::wstring_view end) { return call.texts[0].ends_with(end); })) {
        return Retry::kAlways;
      }
      return call.name == "RemoveDirectoryW" || call.name == "FindFirstFileW" ? Retry::kNever
                                                                              : Retry::kPerhaps;
  }
}

// What is wrong with a run in which a call has failed in passing.
std::string CheckPassing(const Scenario& scenario, const ApiCall& call, int failures, const RunRecord& record,
                         const Tree& tree) {
  DWORD waited_ms = 0;
  for (const DWORD sleep_ms : record.sleeps) {
    waited_ms += sleep_ms <= 400 ? sleep_ms : 0;  // the longer one lets the last text be read
  }
  const Retry retry = RetryOf(scenario, call);
  if (retry == Retry::kNever ? waited_ms != 0
                             : retry == Retry::kAlways && waited_ms != (failures == 1 ? 50 : 1'950)) {
    return "waited " + std::to_string(waited_ms) + " ms\n";
  }
  // Several failures of a call that is made in several places may end elsewhere.
  if (waited_ms == 0 || (failures > 1 && retry == Retry::kPerhaps)) {
    return "";
  }
  const bool is_clean =
      record.exit_code == scenario.clean.exit_code && record.message == scenario.clean.message;
  return (is_clean ? "" : "ends otherwise\n") + TreeDifference(tree, scenario.end);
}

std::string Describe(const ApiCall& call) {
  std::string text(call.name);
  for (const std::wstring& path : call.texts) {
    text += " " + WideToUtf8(path.starts_with(Client().root) ? path.substr(Client().root.size()) : path);
  }
  return text;
}

class FaultAt : public testing::TestWithParam<std::tuple<std::size_t, std::size_t>> {};

TEST_P(FaultAt, EveryCallLosesNothing) {
  const auto [scenario_index, mode_index] = GetParam();
  const Scenario& scenario = ScenarioAt(scenario_index);
  const Mode& mode = kModes[mode_index];
  const bool memory = mode.fault == Fault::kOutOfMemory;
  const std::vector<ApiCall>& calls = scenario.clean.calls;
  const std::size_t begin = memory ? calls[scenario.first_call].allocations_before : scenario.first_call;
  const std::size_t end = memory ? scenario.clean.allocations : calls.size();
  static std::map<Tree, Recovery> recoveries[kScenarioCount];  // what it does depends on the directory alone
  std::map<std::string, int> outcomes;
  Tree tree;
  bool is_tree_current = false;
  int points = 0;
  int lost = 0;
  for (std::size_t k = begin; k < end; k += StepOf(scenario_index, mode)) {
    if (!mode.only.empty() && calls[k].name != mode.only) {
      continue;
    }
    const DWORD code = mode.passes_after != 0 ? kTransientCodes[k % std::size(kTransientCodes)] : mode.code;
    const RunRecord record = RunScenario(scenario, {mode.fault, k, code, std::max(mode.passes_after, 1)},
                                         is_tree_current ? &tree : nullptr);
    tree = Client().Read();
    const auto [known, is_new] = recoveries[scenario_index].try_emplace(tree);
    is_tree_current = !is_new;
    if (is_new) {
      known->second = Recover(scenario, tree);
    }
    std::string wrong = known->second.wrong + (record.died ? "" : CheckReport(scenario, record, tree));
    if (record.exit_code == 0 && std::ranges::any_of(record.calls, [](const ApiCall& call) {
          return call.name == "FlushFileBuffers" && call.made_to_fail;
        })) {
      wrong += "success, although a flush failed\n";
    }
    for (const std::string& violation : record.violations) {
      wrong += violation + "\n";
    }
    if (mode.passes_after != 0) {
      wrong += CheckPassing(scenario, calls[k], mode.passes_after, record, tree);
    }
    ++points;
    ++outcomes[known->second.name];
    if (!wrong.empty()) {
      ++lost;
      ADD_FAILURE() << mode.name << " " << k << (memory ? "" : ", " + Describe(calls[k])) << ": \""
                    << WideToUtf8(record.message) << "\"\n"
                    << known->second.name << "\n"
                    << wrong;
    }
  }
  EXPECT_GT(points, 0);
  std::printf("counted: %-26s %-27s %4d points:",
              (scenario.name + std::string(scenario_index < 4 ? "" : ", backwards")).c_str(), mode.name,
              points);
  for (const auto& [name, count] : outcomes) {
    std::printf(" %d %s,", count, name.c_str());
  }
  std::printf(" %d lost\n", lost);
  static_cast<void>(std::fflush(stdout));
}

INSTANTIATE_TEST_SUITE_P(Table, FaultAt,
                         testing::Combine(testing::Range<std::size_t>(0, kScenarioCount),
                                          testing::Range<std::size_t>(0, kModesForAll)));
INSTANTIATE_TEST_SUITE_P(PartialReplacement, FaultAt,
                         testing::Combine(testing::Values(std::size_t{0}),
                                          testing::Range<std::size_t>(kModesForAll, std::size(kModes))));

constexpr wchar_t kRootVariable[] = L"TALVEX_TEST_CLIENT_ROOT";
constexpr wchar_t kCallVariable[] = L"TALVEX_TEST_DYING_CALL";

// What the next test starts as a process of its own.
TEST(DISABLED_DyingProcess, DiesAtACall) {
  std::array<wchar_t, MAX_PATH> root{};
  std::array<wchar_t, 16> call{};
  GetEnvironmentVariableW(kRootVariable, root.data(), MAX_PATH);
  GetEnvironmentVariableW(kCallVariable, call.data(), static_cast<DWORD>(call.size()));
  SmallClient client(root.data(), kOld, kNew);
  client.settings.die_for_good = true;
  static_cast<void>(client.Apply({Fault::kDieBefore, std::stoul(call.data())}));
}

// A sample of the deaths, by processes that really end.
TEST(FaultMatrix, RealDeathsLeaveTheSame) {
  const Scenario& update = ScenarioAt(0);
  std::array<wchar_t, MAX_PATH> self{};
  GetModuleFileNameW(nullptr, self.data(), MAX_PATH);
  SetEnvironmentVariableW(kRootVariable, Client().root.c_str());
  for (const wchar_t* const shards : {L"GTEST_TOTAL_SHARDS", L"GTEST_SHARD_INDEX"}) {
    SetEnvironmentVariableW(shards, nullptr);  // the process has one test to run, whichever shard this is
  }
  int deaths = 0;
  for (std::size_t k = 0; k < update.clean.calls.size(); k += 25, ++deaths) {
    EXPECT_TRUE(RunScenario(update, {Fault::kDieBefore, k}).died);
    const Tree expected = Client().Read();
    Client().Become(update.start);
    SetEnvironmentVariableW(kCallVariable, std::to_wstring(k).c_str());
    const HelperResult result = RunHelper(
        self.data(), {L"--gtest_filter=DISABLED_DyingProcess.*", L"--gtest_also_run_disabled_tests"}, {});
    EXPECT_EQ(result.exit_code, kDeathExitCode) << k << result.console;
    EXPECT_EQ(TreeDifference(Client().Read(), expected), "") << k;
  }
  std::printf("counted: %d processes died as the simulated ones\n", deaths);
}

}  // namespace
}  // namespace talvex::test
