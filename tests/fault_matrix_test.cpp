// A fault at every call: whatever fails and wherever the helper dies, the client directory ends as the old
// release or as the new one, byte for byte, with the state and the cache that belong to it.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <map>
#include <set>
#include <tuple>

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

const TestRelease kOld{"1.0",
                       1,
                       {{"Talvex.exe", "old client"},
                        {"TalvexUpdateHelper.exe", "the helper"},
                        {"Data/deep/a.bin", "old a"},
                        {"old/retired.bin", "retired"}}};
const TestRelease kNew{"2.0",
                       2,
                       {{"Talvex.exe", "new client"},
                        {"TalvexUpdateHelper.exe", "the helper"},
                        {"Data/deep/a.bin", "new a"},
                        {"new/folder/b.bin", "new b"}}};

SmallClient& Client() {
  static SmallClient client(kOld, kNew);
  return client;
}

// A transaction that faults are put into.
struct Scenario {
  const char* name;
  bool is_rollback;
  Tree start;
  Tree old_files;  // what the old release is here
  std::size_t first_call = 0;
  RunRecord clean = {};
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

std::vector<Scenario> MakeScenarios() {
  SmallClient& client = Client();
  const auto run = [&](Scenario scenario, int exit_code, const Tree& files) {
    scenario.clean = RunScenario(scenario);
    EXPECT_EQ(scenario.clean.exit_code, exit_code);
    for (const ApiCall& call : scenario.clean.calls) {  // nothing is relied on that could still be lost
      if (call.name == "CopyFileW" || call.name == "ReplaceFileW") {
        const std::wstring& written = call.texts[call.name == "CopyFileW" ? 1 : 0];
        EXPECT_TRUE(scenario.clean.IsFlushed(written)) << WideToUtf8(written);
      }
    }
    EXPECT_EQ(scenario.clean.violations, std::vector<std::string>());
    EXPECT_EQ(TreeDifference(SmallClient::ClientFiles(client.Read()), files), "");
    return scenario;
  };
  WriteTestFile(client.root + L"\\.talvex-update\\previous\\rollback.journal", "of an earlier update\n");
  WriteTestFile(client.root + L"\\.talvex-update\\previous\\files\\Talvex.exe", "older client");
  client.StageAgain();
  const Tree before = client.Read();
  const Scenario update = run({"update", false, before, client.old_files}, 0, client.new_files);
  const Scenario rollback = run({"rollback", true, client.Read(), client.old_files}, 0, client.RolledBack());

  const FaultPoint between_two_changes{Fault::kDieAfter, FirstCall(update.clean, "ReplaceFileW", L"a.bin")};
  EXPECT_TRUE(RunScenario(update, between_two_changes).died);
  const Scenario half =
      run({"rollback of half an update", true, client.Read(), client.old_files}, 0, client.RolledBack());

  // The last proof of an update fails, as the player has edited a file that it does not replace.
  client.Become(before);
  WriteTestFile(client.root + L"\\TalvexUpdateHelper.exe", "The helper");
  Tree edited = client.old_files;
  edited[L"TalvexUpdateHelper.exe"] = "The helper";
  std::swap(client.old_files, edited);
  Scenario restoration = run({"restoration", false, client.Read(), client.old_files}, 1, client.old_files);
  std::swap(client.old_files, edited);
  EXPECT_EQ(restoration.clean.message,
            L"An installed update file failed verification.\n\nYour existing files were restored.");
  restoration.first_call = FirstCall(restoration.clean, "CreateFileW", L"previous\\rollback.journal");
  return {update, rollback, half, restoration};
}

const Scenario& ScenarioAt(std::size_t index) {
  static const std::vector<Scenario> scenarios = MakeScenarios();
  return scenarios[index];
}

Tree WithMarker(Tree files) {
  files[kMarker] = Client().RolledBack().at(kMarker);
  return files;
}

struct Recovery {
  std::string name;
  std::string wrong;
};

// The rollback would not start, and has changed nothing: the next update is what recovers then.
constexpr char kRollbackRefuses[] = "old release, though rollback refuses";

// Carries out the recovery that `tree`, which a helper has left behind, asks for.
Recovery Recover(const Scenario& scenario, const Tree& tree) {
  SmallClient& client = Client();
  const Tree files = SmallClient::ClientFiles(tree);
  const auto now = [&] { return SmallClient::ClientFiles(client.Read()); };
  Recovery recovery;
  const auto follow = [&](const RunRecord& record, const Tree& expected) {
    if (record.exit_code != 0) {
      recovery.wrong += "recovery fails: " + WideToUtf8(record.message) + "\n";
    }
    for (const std::string& violation : record.violations) {
      recovery.wrong += "in recovery: " + violation + "\n";
    }
    recovery.wrong += TreeDifference(now(), expected);
  };
  const bool installed = files == client.new_files;
  recovery.name = installed ? "new release" : "old release";
  client.next_process_id = 2000;
  if (client.HasOwnJournal(tree)) {
    const RunRecord record = client.Rollback();
    if (record.exit_code == 0 || files != scenario.old_files || now() != scenario.old_files) {
      recovery.name = installed ? recovery.name : "old release by rollback";
      follow(record, WithMarker(scenario.old_files));
      return recovery;
    }
    recovery.name = kRollbackRefuses;
  } else if (installed) {
    return recovery;
  }
  const bool marked = scenario.is_rollback;
  recovery.wrong = TreeDifference(files, marked ? WithMarker(scenario.old_files) : scenario.old_files);
  client.StageAgain();
  WriteTestFile(client.root + L"\\TalvexUpdateHelper.exe", "the helper");  // what a player may have edited
  follow(client.Apply(), marked ? WithMarker(client.new_files) : client.new_files);
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
};
const Mode kModes[] = {
    {"FailsOnce", Fault::kFailOnce},
    {"FailsFromHereOn", Fault::kFailFromHere},
    {"DiesBefore", Fault::kDieBefore},
    {"DiesAfter", Fault::kDieAfter},
    {"DiesInside", Fault::kDieInside, 0, "CopyFileW"},
    {"OutOfMemory", Fault::kOutOfMemory},
    {"RemoveReplacedFails", Fault::kFailOnce, ERROR_UNABLE_TO_REMOVE_REPLACED, "ReplaceFileW"},
    {"MoveReplacementFails", Fault::kFailOnce, ERROR_UNABLE_TO_MOVE_REPLACEMENT, "ReplaceFileW"},
    {"MoveReplacementFailsHalfWay", Fault::kFailOnce, ERROR_UNABLE_TO_MOVE_REPLACEMENT_2, "ReplaceFileW"},
};

// Where the rules of the helper leave no cleaner end than an old release that a rollback refuses to touch:
// once everything is restored the copies are removed in the order of their names, the journal last. The next
// update clears away what is left. Each row has to be met.
struct Unavoidable {
  std::string_view scenario;
  std::string_view mode;
  std::wstring_view path_part;  // of the call's first text
};
const Unavoidable kUnavoidable[] = {
    {"restoration", "FailsOnce", L"\\.talvex-update\\previous"},
    {"restoration", "FailsFromHereOn", L"\\.talvex-update\\previous"},
    {"restoration", "DiesBefore", L"\\.talvex-update\\previous"},
    {"restoration", "DiesAfter", L"\\.talvex-update\\previous"},
    {"restoration", "OutOfMemory", L""},
};

bool IsUnavoidable(const Unavoidable& row, const Scenario& scenario, const Mode& mode) {
  return row.scenario == scenario.name && row.mode == mode.name;
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
  static std::map<Tree, Recovery> recoveries[4];  // what recovery does depends on the directory alone
  std::map<std::string, int> outcomes;
  std::set<const Unavoidable*> met;
  Tree tree;
  bool is_tree_current = false;
  int points = 0;
  int lost = 0;
  for (std::size_t k = begin; k < end; ++k) {
    if (!mode.only.empty() && calls[k].name != mode.only) {
      continue;
    }
    const RunRecord record =
        RunScenario(scenario, {mode.fault, k, mode.code}, is_tree_current ? &tree : nullptr);
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
    if (known->second.name == kRollbackRefuses) {
      const auto* const row = std::ranges::find_if(kUnavoidable, [&](const Unavoidable& candidate) {
        return IsUnavoidable(candidate, scenario, mode) &&
               (memory || (!calls[k].texts.empty() &&
                           calls[k].texts[0].find(candidate.path_part) != std::wstring::npos));
      });
      wrong += row == std::end(kUnavoidable) ? "not a listed point\n" : "";
      met.insert(row);
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
  for (const Unavoidable& row : kUnavoidable) {
    EXPECT_TRUE(!IsUnavoidable(row, scenario, mode) || met.contains(&row)) << "not needed";
  }
  EXPECT_GT(points, 0);
  std::printf("counted: %-26s %-27s %4d points:", scenario.name, mode.name, points);
  for (const auto& [name, count] : outcomes) {
    std::printf(" %d %s,", count, name.c_str());
  }
  std::printf(" %d lost\n", lost);
  static_cast<void>(std::fflush(stdout));
}

INSTANTIATE_TEST_SUITE_P(Table, FaultAt,
                         testing::Combine(testing::Range<std::size_t>(0, 4),
                                          testing::Range<std::size_t>(0, 6)));
INSTANTIATE_TEST_SUITE_P(PartialReplacement, FaultAt,
                         testing::Combine(testing::Values(std::size_t{0}),
                                          testing::Range<std::size_t>(6, 9)));

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
