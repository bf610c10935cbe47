// A fault at every call: whatever fails and wherever the helper dies, the client directory ends as the old
// release or as the new one, byte for byte, with the state and the cache that belong to it.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cwctype>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "core/text_encoding.h"
#include "tests/proof/small_client.h"
#include "tests/support/helper_run.h"

namespace talvex::test {
namespace {

constexpr wchar_t kRolledBack[] =
    L"The last update could not start correctly, so Talvex restored the previous client files. "
    L"A newer update is required before this release will be tried again.";

// `age`: what tells its files from those of the others.
TestRelease MakeRelease(std::uint64_t sequence, const std::string& age,
                        std::map<std::string, std::string> files) {
  files.insert({{"Talvex.exe", age + " client"},
                {"TalvexUpdateHelper.exe", "the helper"},
                {"Data/deep/a.bin", age + " a"}});
  return {std::to_string(sequence) + ".0", sequence, std::move(files)};
}

const TestRelease kOlder = MakeRelease(1, "older", {{"old/retired.bin", "retired"}});
const TestRelease kOld = MakeRelease(2, "old", {{"old/retired.bin", "retired"}});
const TestRelease kNew = MakeRelease(3, "new", {{"new/folder/b.bin", "new b"}});
const TestRelease kNewWithoutRetires =
    MakeRelease(3, "new", {{"new/folder/b.bin", "new b"}, {"old/retired.bin", "retired"}});

// A transaction that faults are put into.
struct Scenario {
  std::string name;
  SmallClient* client;
  bool is_rollback;
  Tree start;
  Tree restored;  // the client files that a rollback, or an update that fails, has to leave
  std::size_t first_call = 0;
  RunRecord clean = {};
  Tree end = {};  // of the clean run
};

// Runs it on a fresh directory.
RunRecord RunScenario(const Scenario& scenario, const FaultPoint& fault = {}) {
  scenario.client->Become(scenario.start);
  return scenario.is_rollback ? scenario.client->Rollback(fault) : scenario.client->Apply(fault);
}

Scenario RunClean(Scenario scenario, int exit_code, std::wstring_view message) {
  scenario.clean = RunScenario(scenario);
  scenario.end = scenario.client->Read();
  EXPECT_EQ(scenario.clean.exit_code, exit_code);
  EXPECT_EQ(scenario.clean.message, message);
  EXPECT_EQ(scenario.clean.violations, "");
  const bool is_update = exit_code == 0 && !scenario.is_rollback;
  EXPECT_EQ(TreeDifference(SmallClient::ClientFiles(scenario.end),
                           is_update ? scenario.client->new_files : scenario.restored),
            "");
  EXPECT_EQ(scenario.clean.unflushed.size(), 0u);  // nothing is relied on that could still be lost
  return scenario;
}

std::size_t FirstCall(const RunRecord& record, std::string_view name, std::wstring_view path_end) {
  const auto found = std::ranges::find_if(record.calls, [&](const ApiCall& call) {
    return call.name == name && call.Path().ends_with(path_end);
  });
  return static_cast<std::size_t>(found - record.calls.begin());
}

// The four transactions. The client starts with the old release, installed by an update whose rollback data
// is still there.
std::vector<Scenario> MakeScenarios(SmallClient& client, const TestRelease& next) {
  client.Stage();
  EXPECT_EQ(client.Apply().exit_code, 0);
  client.Offer(kOld, next);
  client.Stage();
  const Tree rolled_back = client.Marked(client.old_files);
  const Scenario update = RunClean({"update", &client, false, client.Read(), client.old_files}, 0, L"");
  const Scenario rollback = RunClean({"rollback", &client, true, update.end, rolled_back}, 0, kRolledBack);

  EXPECT_TRUE(
      RunScenario(update, {Fault::kDieAfter, FirstCall(update.clean, "ReplaceFileW", L"a.bin")}).died);
  const Scenario half =
      RunClean({"rollback of half an update", &client, true, client.Read(), rolled_back}, 0, kRolledBack);

  // The last proof of an update fails, as the player has edited a file that it does not replace.
  Scenario restoration = {"restoration", &client, false, update.start, client.old_files};
  restoration.start[L"TalvexUpdateHelper.exe"] = restoration.restored[L"TalvexUpdateHelper.exe"] =
      "The helper";
  restoration = RunClean(
      restoration, 1, L"An installed update file failed verification.\n\nYour existing files were restored.");
  restoration.first_call = FirstCall(restoration.clean, "CreateFileW", kJournal);
  return {update, rollback, half, restoration};
}

constexpr std::size_t kScenarioCount = 8;

// The first four retire a file and list directories by name; the others retire none and list them backwards.
const Scenario& ScenarioAt(std::size_t index) {
  static SmallClient clients[] = {{kOlder, kOld}, {kOlder, kOld}};
  clients[1].settings.list_backwards = true;
  static const std::vector<Scenario> scenarios[] = {MakeScenarios(clients[0], kNew),
                                                    MakeScenarios(clients[1], kNewWithoutRetires)};
  return scenarios[index / 4][index % 4];
}

// What is wrong with a transaction that nothing has hindered.
std::string CheckUnhindered(const SmallClient& client, const RunRecord& record, int exit_code,
                            const Tree& files) {
  return (record.exit_code == exit_code ? "" : "then ended with " + WideToUtf8(record.message) + "\n") +
         record.violations + TreeDifference(SmallClient::ClientFiles(client.Read()), files);
}

// The next update has to succeed, and leaves an earlier mark of failure alone.
std::string CheckNextUpdate(SmallClient& client) {
  client.Stage();
  WriteTestFile(client.root + L"\\TalvexUpdateHelper.exe", "the helper");  // what the player may have edited
  const Tree before = client.Read();
  Tree expected = client.new_files;
  if (const auto mark = before.find(kFailureMark); mark != before.end()) {
    expected.insert(*mark);
  }
  return CheckUnhindered(client, client.Apply(), 0, expected);
}

// Carries out what may follow on `tree`, in which a run has left the client: the rollback and an update after
// it, and without a journal of the run's own also the update alone. (A client settles an update before it
// starts another one, which would clear the copies.) Says what is wrong with `tree` or with what followed.
std::string Recover(const Scenario& scenario, const Tree& tree) {
  SmallClient& client = *scenario.client;
  const Tree files = SmallClient::ClientFiles(tree);
  if (client.HasOwnJournal(tree)) {
    std::string wrong = CheckUnhindered(client, client.Rollback(), 0, client.Marked(scenario.restored));
    return wrong += CheckNextUpdate(client);
  }
  const bool has_earlier_journal = tree.contains(kJournal);  // of the update to the old release
  const bool may_be_new = !has_earlier_journal && files == client.new_files;
  std::string wrong = may_be_new ? "" : TreeDifference(files, scenario.restored);
  if (has_earlier_journal) {
    SmallClient earlier(kOlder, kOld, client.root);
    wrong += CheckUnhindered(earlier, earlier.Rollback(), 0, earlier.Marked(earlier.old_files));
    earlier.Offer(kOlder, client.new_release);
    wrong += CheckNextUpdate(earlier);
  } else {
    wrong += CheckUnhindered(client, client.Rollback(), 1, files);
    wrong += CheckNextUpdate(client);
  }
  client.Become(tree);
  return wrong += CheckNextUpdate(client);
}

// What no message may say when a call has failed and all data is right.
constexpr std::wstring_view kBlame[] = {
    L" contains ", L" escapes ",       L" has an invalid ",     L" has invalid ",
    L" has no ",   L" is incomplete.", L" is empty.",           L" changed locally",
    L" server ",   L" plan failed ",   L"manifest is invalid.", L"transaction is invalid."};

// A failure is told in one or two parts: a reason, and what became of the files; or that the rollback has
// failed, and why. Only where memory runs out, or an empty directory stays, may the reason be missing.
bool IsToldWell(const std::wstring& message, const ApiCall* failed_call) {
  const bool lacks_reason = message.starts_with(L"The update failed.") ||
                            message == L"Talvex could not restore the previous client files.";
  const bool is_whole =
      !message.empty() && std::iswupper(message.front()) != 0 && std::iswspace(message.back()) == 0;
  return is_whole && (!lacks_reason || failed_call == nullptr || failed_call->name == "FindFirstFileW") &&
         std::ranges::none_of(kBlame, [&](auto blame) { return message.find(blame) != std::wstring::npos; });
}

// What a run that came to its end says has to agree with what it has done.
std::string CheckReport(const Scenario& scenario, const FaultPoint& fault, const RunRecord& record,
                        const Tree& tree) {
  const std::wstring& message = record.message;
  const bool own_journal = scenario.client->HasOwnJournal(tree);
  const Tree files = SmallClient::ClientFiles(tree);
  const std::string from_new = TreeDifference(files, scenario.client->new_files);
  const std::string from_restored = TreeDifference(files, scenario.restored);
  if (record.exit_code == 0) {
    const bool is_told = scenario.is_rollback ? message == kRolledBack
                                              : message.empty() && record.client_started && own_journal;
    return (is_told && record.unflushed.empty() ? "" : "exit code 0 without what belongs to it\n") +
           (scenario.is_rollback ? from_restored : from_new);
  }
  if (record.exit_code != 1 ||
      !IsToldWell(message, fault.fault == Fault::kOutOfMemory ? nullptr : &record.calls[fault.index])) {
    return "a failure without its exit code or its text\n";
  }
  if (scenario.is_rollback) {
    return own_journal ? "" : "a failed rollback without its journal\n";
  }
  if (message.starts_with(L"The update finished, but ") || message.starts_with(L"The update health lock ")) {
    return from_new;
  }
  // Without a second part nothing was changed.
  if (message.find(L"\n\n") == std::wstring::npos ||
      message.ends_with(L"\n\nYour existing files were restored.")) {
    return (own_journal ? "the old release with a journal\n" : "") + from_restored;
  }
  return "";
}

// Whether a call that fails with a transient code is tried again; nothing, where the same call is made in
// several places.
std::optional<bool> IsRetried(const Scenario& scenario, const ApiCall& call) {
  const std::wstring path = call.Path() + L"\\";
  const bool is_cleared =
      path.find(L"\\.talvex-update\\") != std::wstring::npos && path.find(L".new") == std::wstring::npos;
  const bool is_restoration = scenario.first_call != 0;
  const bool opens = call.name == "CreateFileW";
  const DWORD access = opens ? call.numbers[0] & (GENERIC_READ | GENERIC_WRITE) : 0;
  const DWORD flags = opens ? call.numbers[3] : 0;
  if (call.name == "DeleteFileW" || (flags & FILE_FLAG_BACKUP_SEMANTICS) != 0) {  // also: holds a directory
    return !is_cleared;
  }
  if (opens && access == 0) {
    return scenario.is_rollback || is_restoration ? std::optional(true) : std::nullopt;
  }
  if (call.name == "GetFileAttributesW") {
    // The restoration alone looks at files only in order to change them, and at the journal to clear it.
    const bool is_file = path.find(L'.', path.rfind(L'\\', path.size() - 2) + 2) != std::wstring::npos;
    const bool is_journal = path.ends_with(L"\\rollback.journal\\");
    return is_restoration && is_file && !is_journal ? std::optional(true) : std::nullopt;
  }
  if (call.name.starts_with("GetFileInformation")) {
    return std::nullopt;
  }
  const bool changes = call.name == "ReplaceFileW" || call.name == "CopyFileW" ||
                       (call.name == "MoveFileExW" && call.texts.size() == 2);
  const bool proves = (flags & FILE_FLAG_SEQUENTIAL_SCAN) != 0;
  return changes || (opens && !proves);
}

// What is wrong with a run in which a call has failed with a transient code.
std::string CheckTransient(const Scenario& scenario, const FaultPoint& fault, const RunRecord& record,
                           const Tree& tree) {
  const std::optional<bool> is_retried = IsRetried(scenario, scenario.clean.calls[fault.index]);
  const DWORD schedule_ms = fault.times == 1 ? 50 : 1'950;
  if (is_retried && record.waited_ms != (*is_retried ? schedule_ms : 0)) {
    return "waited " + std::to_string(record.waited_ms) + " ms\n";
  }
  // Several failures of a call that is made in several places may end elsewhere.
  if (record.waited_ms == 0 || (!is_retried && fault.times > 1)) {
    return "";
  }
  const bool is_clean =
      record.exit_code == scenario.clean.exit_code && record.message == scenario.clean.message;
  return (is_clean ? "" : "ends otherwise\n") + TreeDifference(tree, scenario.end);
}

struct Mode {
  const char* name;
  Fault fault;
  std::string_view only = {};  // the calls it is for; empty: every call
  int transient_failures = 0;  // before the call succeeds
  DWORD code = 0;
};
const Mode kModes[] = {
    {"FailsOnce", Fault::kFail},
    {"FailsFromHereOn", Fault::kFailFromHere},
    {"DiesBefore", Fault::kDieBefore},
    {"DiesAfter", Fault::kDieAfter},
    {"DiesInside", Fault::kDieInside, "CopyFileW"},
    {"OutOfMemory", Fault::kOutOfMemory},
    {"PassesAfterOne", Fault::kFail, {}, 1},
    {"PassesAfterSeven", Fault::kFail, {}, 7},
    {"DeletePending", Fault::kDeletePending, "DeleteFileW"},
    {"RemoveReplacedFails", Fault::kFail, "ReplaceFileW", 0, ERROR_UNABLE_TO_REMOVE_REPLACED},
    {"MoveReplacementFails", Fault::kFail, "ReplaceFileW", 0, ERROR_UNABLE_TO_MOVE_REPLACEMENT},
    {"MoveReplacementFailsHalfWay", Fault::kFail, "ReplaceFileW", 0, ERROR_UNABLE_TO_MOVE_REPLACEMENT_2},
};

constexpr DWORD kTransientCodes[] = {ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION, ERROR_LOCK_VIOLATION,
                                     ERROR_BUSY, ERROR_USER_MAPPED_FILE};

// Every call of an update in the ways in which a call fails or the helper dies, an even sample of the rest.
// (A step that 2 or 5 divided would always meet the same code.)
std::vector<FaultPoint> PointsOf(std::size_t scenario_index, const Mode& mode) {
  const Scenario& scenario = ScenarioAt(scenario_index);
  const std::vector<ApiCall>& calls = scenario.clean.calls;
  const bool is_memory = mode.fault == Fault::kOutOfMemory;
  const bool is_complete = (scenario_index == 0 && mode.transient_failures == 0) || !mode.only.empty();
  const std::size_t step = is_complete ? 1 : scenario_index < 4 ? 3 : 11;
  const std::size_t end = is_memory ? scenario.clean.allocations : calls.size();
  std::vector<FaultPoint> points;
  for (std::size_t k = is_memory ? calls[scenario.first_call].allocations_before : scenario.first_call;
       k < end; k += step) {
    if (mode.only.empty() || calls[k].name == mode.only) {
      const DWORD code =
          mode.transient_failures != 0 ? kTransientCodes[k % std::size(kTransientCodes)] : mode.code;
      points.push_back({mode.fault, k, code, std::max(mode.transient_failures, 1)});
    }
  }
  return points;
}

std::string Describe(const Scenario& scenario, const FaultPoint& fault) {
  if (fault.fault == Fault::kOutOfMemory) {
    return "allocation " + std::to_string(fault.index);
  }
  const ApiCall& call = scenario.clean.calls[fault.index];
  return std::to_string(fault.index) + ", " + std::string(call.name) + " " + WideToUtf8(call.Path());
}

class FaultAt : public testing::TestWithParam<std::tuple<std::size_t, std::size_t>> {};

TEST_P(FaultAt, EveryCallLosesNothing) {
  const auto [scenario_index, mode_index] = GetParam();
  const Scenario& scenario = ScenarioAt(scenario_index);
  const Mode& mode = kModes[mode_index];
  const std::vector<FaultPoint> points = PointsOf(scenario_index, mode);
  static std::map<Tree, std::string> recoveries[kScenarioCount];  // what may follow depends on the tree alone
  int lost = 0;
  for (const FaultPoint& point : points) {
    const RunRecord record = RunScenario(scenario, point);
    const Tree tree = scenario.client->Read();
    const auto [recovery, is_new] = recoveries[scenario_index].try_emplace(tree);
    if (is_new) {
      recovery->second = Recover(scenario, tree);
    }
    const std::string wrong =
        recovery->second + record.violations +
        (record.died ? "" : CheckReport(scenario, point, record, tree)) +
        (mode.transient_failures == 0 ? "" : CheckTransient(scenario, point, record, tree));
    if (!wrong.empty()) {
      ++lost;
      ADD_FAILURE() << mode.name << " " << Describe(scenario, point) << "\n"
                    << WideToUtf8(record.message) << "\n"
                    << wrong;
    }
  }
  EXPECT_FALSE(points.empty() && (mode.only.empty() || scenario_index == 0));
  std::printf("counted: %s%s, %s: %zu points: %d lost\n", scenario.name.c_str(),
              scenario_index < 4 ? "" : ", backwards", mode.name, points.size(), lost);
  static_cast<void>(std::fflush(stdout));
}

INSTANTIATE_TEST_SUITE_P(Table, FaultAt,
                         testing::Combine(testing::Range<std::size_t>(0, kScenarioCount),
                                          testing::Range<std::size_t>(0, std::size(kModes))));

constexpr wchar_t kDeathVariable[] = L"TALVEX_TEST_DEATH";  // the call and, after a blank, the client's root

// What the next test starts as a process of its own.
TEST(DISABLED_DyingProcess, DiesAtACall) {
  std::wstring death(MAX_PATH, L'\0');
  death.resize(GetEnvironmentVariableW(kDeathVariable, death.data(), MAX_PATH));
  SmallClient client(kOld, kNew, death.substr(death.find(L' ') + 1));
  client.settings.die_for_good = true;
  static_cast<void>(client.Apply({Fault::kDieBefore, std::stoul(death)}));
}

// A sample of the deaths, by processes that really end.
TEST(FaultMatrix, RealDeathsLeaveTheSame) {
  const Scenario& update = ScenarioAt(0);
  SetEnvironmentVariableW(L"GTEST_TOTAL_SHARDS", nullptr);  // the process has one test to run, in every shard
  SetEnvironmentVariableW(L"GTEST_SHARD_INDEX", nullptr);
  for (std::size_t k = 0; k < update.clean.calls.size(); k += 25) {
    EXPECT_TRUE(RunScenario(update, {Fault::kDieBefore, k}).died);
    const Tree expected = update.client->Read();
    update.client->Become(update.start);
    SetEnvironmentVariableW(kDeathVariable, (std::to_wstring(k) + L" " + update.client->root).c_str());
    const HelperResult result =
        RunHelper(BuiltProgram(L"tests\\fault_matrix_test.exe"),
                  {L"--gtest_filter=DISABLED_DyingProcess.*", L"--gtest_also_run_disabled_tests"}, {});
    EXPECT_EQ(result.exit_code, kDeathExitCode) << k << result.console;
    EXPECT_EQ(TreeDifference(update.client->Read(), expected), "") << k;
  }
}

}  // namespace
}  // namespace talvex::test
