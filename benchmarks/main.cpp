// The benchmark: each figure is a ratio to a baseline measured in the same run. Prints a table and writes it
// as CSV to the file named on the command line. Run it through tools/bench.sh.

#include <windows.h>

#include <psapi.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "app/apply_mode.h"
#include "app/reporting.h"
#include "benchmarks/workload.h"
#include "client/talvex_update.h"
#include "core/owned_handle.h"
#include "core/sha256.h"
#include "formats/apply_plan.h"
#include "formats/managed_file.h"
#include "formats/text_lines.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"
#include "tests/support/helper_run.h"
#include "tests/support/test_release.h"

namespace talvex::bench {
namespace {

constexpr double kCompletedTextSeconds = 1.2;  // the fixed wait at the end of an update

std::ofstream& Csv() {
  static std::ofstream csv;
  return csv;
}
bool all_within = true;

// `min` or `max` of 0: printed without a bound.
void Report(const char* what, double value, const char* unit, double min, double max) {
  const bool within = (min == 0 || value >= min) && (max == 0 || value <= max);
  all_within = all_within && within;
  char bound[64] = "";
  if (min != 0) {
    std::snprintf(bound, sizeof(bound), "at least %.2f", min);
  } else if (max != 0) {
    std::snprintf(bound, sizeof(bound), "at most %.2f", max);
  }
  std::printf("%-58s %10.3f %-6s %-16s %s\n", what, value, unit, bound, within ? "" : "MISSED");
  Csv() << '"' << what << "\"," << value << ',' << unit << ",\"" << bound << "\"," << (within ? "yes" : "no")
        << '\n';
}

// Work that was not done would give a good figure.
void Require(bool done, const char* work) {
  if (!done) {
    std::fprintf(stderr, "The benchmark could not go on: %s failed (Windows error %lu)\n", work,
                 GetLastError());
    ExitProcess(1);
  }
}

double Median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

double TimeOf(const std::function<void()>& work) {
  const double start = Seconds();
  work();
  return Seconds() - start;
}

const std::wstring& OwnPath() {
  static const std::wstring path = [] {
    std::array<wchar_t, MAX_PATH> buffer{};
    return std::wstring(buffer.data(), GetModuleFileNameW(nullptr, buffer.data(), MAX_PATH));
  }();
  return path;
}

std::wstring EmptyProgram() {
  return test::BuiltProgram(L"bench\\empty_program.exe");
}

// Seconds for an update in this process, less its fixed wait. The benchmark itself acts as the running
// helper.
double MeasureApply(const Workload& workload) {
  const OwnedHandle parent = test::MakeInheritableEvent(true);
  const OwnedHandle lock = test::MakeInheritableMutex();
  // The transaction closes the handles that it is given.
  const auto lend = [](const OwnedHandle& handle) {
    HANDLE copy = nullptr;
    DuplicateHandle(GetCurrentProcess(), handle.Get(), GetCurrentProcess(), &copy, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    return copy;
  };
  const std::vector<std::wstring> operands = workload.ApplyOperands(lend(parent), lend(lock));
  std::vector<const wchar_t*> arguments = {L"bench", L"--apply-plan"};
  for (const std::wstring& operand : operands) {
    arguments.push_back(operand.c_str());
  }
  int exit_code = 1;
  const double seconds =
      TimeOf([&] { exit_code = RunApplyMode(static_cast<int>(arguments.size()), arguments.data()); });
  Require(exit_code == 0, "an update in this process");
  return seconds - kCompletedTextSeconds;
}

// The median of many pairs: a virtual machine's speed varies, but seldom between the two runs of a pair.
void BenchHash() {
  constexpr double kSize = 64;  // MiB
  test::ScratchDirectory scratch;
  const std::wstring path = scratch / L"file";
  test::WriteTestFile(path, std::string(static_cast<std::size_t>(kSize) * kBytesPerMiB, 'x'));
  std::vector<double> bare_rates;
  std::vector<double> ratios;
  for (int round = 0; round < 31; ++round) {
    Sha256Digest digest;
    std::uint64_t size = 0;
    UpdateError error;
    const double bare = TimeOf([&] { static_cast<void>(BareHash(path)); });
    const double product = TimeOf([&] { static_cast<void>(Sha256OfFile(path, ~0ull, digest, size, error)); });
    bare_rates.push_back(kSize / bare);
    ratios.push_back(bare / product);
  }
  Report("hashing a file: bare loop", Median(bare_rates), "MiB/s", 0, 0);
  Report("hashing a file: throughput against the bare loop", Median(ratios), "x", 0.97, 0);
}

void BenchApply() {
  const struct {
    const char* what;
    WorkloadSize size;
    int rounds;
  } cases[] = {{"one byte", {1, 1}, 5},
               {"512 MiB in 8 files", {8, 64 * kBytesPerMiB}, 5},
               {"1,000 files of 64 KiB", {1'000, 65'536}, 3}};
  for (const auto& c : cases) {
    std::vector<double> apply;
    std::vector<double> bare;
    std::vector<double> with_checks;
    for (int round = 0; round < c.rounds; ++round) {
      const auto fresh = [&] { return Workload(c.size, OwnPath(), EmptyProgram()); };
      apply.push_back(MeasureApply(fresh()));
      bare.push_back(fresh().MeasureBaseline(Baseline::kBare));
      with_checks.push_back(fresh().MeasureBaseline(Baseline::kWithChecks));
    }
    const std::string update = std::string("update of ") + c.what;
    Report((update + ": seconds").c_str(), Median(apply), "s", 0, 0);
    if (c.size.files > 1) {
      Report((update + ": against the baseline").c_str(), Median(apply) / Median(bare), "x", 0, 1.10);
      Report((update + ": and the bare checks").c_str(), Median(apply) / Median(with_checks), "x", 0, 1.10);
    }
  }
}

// The cost per unit of the largest workload against that of the smallest. The fixed cost of an update, that
// of one tiny file, is subtracted first.
void BenchGrowth() {
  const auto median = [](const WorkloadSize& size, int rounds) {
    std::vector<double> seconds(static_cast<std::size_t>(rounds));
    for (double& measured : seconds) {
      measured = MeasureApply(Workload(size, OwnPath(), EmptyProgram()));
    }
    return Median(seconds);
  };
  const double fixed = median({1, 1}, 5);
  const auto per_byte = [&](std::uint64_t mib) {
    return (median({8, mib * kBytesPerMiB / 8}, 3) - fixed) / static_cast<double>(mib);
  };
  const double small = per_byte(64);
  Report("cost per byte: 256 MiB against 64 MiB", per_byte(256) / small, "x", 0, 1.10);
  Report("cost per byte: 1 GiB against 64 MiB", per_byte(1024) / small, "x", 0, 1.10);
  const auto per_file = [&](std::size_t files) {
    return (median({files, 16'384}, 5) - fixed) / static_cast<double>(files);
  };
  const double few = per_file(16);
  Report("cost per file: 128 files against 16", per_file(128) / few, "x", 0, 1.10);
  Report("cost per file: 1,022 files against 16", per_file(1'022) / few, "x", 0, 1.10);
}

void BenchParsers() {
  Manifest manifest;
  manifest.release = "limits";
  manifest.sequence = 1;
  std::vector<const ManifestEntry*> install;
  const std::string name(90, 'n');
  for (std::size_t i = 0; i < kManifestFileLimit; ++i) {
    ManifestEntry entry;
    entry.size = 1;
    entry.path = name + "/" + name + "/" + std::to_string(i);
    manifest.entries.push_back(std::move(entry));
  }
  for (const ManifestEntry& entry : manifest.entries) {
    install.push_back(&entry);
  }
  const std::string manifest_text = FormatManifest(manifest);
  Manifest parsed;
  UpdateError error;
  Report("parsing a manifest of 1,024 entries",
         1000 * TimeOf([&] { Require(ParseManifest(AsBytes(manifest_text), parsed, error), "parsing"); }),
         "ms", 0, 0);
  const std::string plan = FormatApplyPlan(parsed.digest, install, {});
  std::vector<const ManifestEntry*> found;
  std::vector<const ManifestEntry*> retired;
  Report("parsing a plan of 1,024 rows",
         1000 * TimeOf([&] {
           Require(ParseApplyPlan(AsBytes(plan), parsed, nullptr, parsed.digest, found, retired, error),
                   "parsing");
         }),
         "ms", 0, 0);
}

// Runs a program to its end and returns its peak physical memory use, in MiB.
double PeakMemory(const std::wstring& program, const std::vector<std::wstring>& arguments,
                  const std::vector<HANDLE>& inherited) {
  double peak = 0;
  const test::HelperResult result = test::RunHelper(program, arguments, inherited, [&](DWORD process_id) {
    const OwnedHandle process(OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, process_id));
    PROCESS_MEMORY_COUNTERS counters{};
    if (process.IsValid() && GetProcessMemoryInfo(process.Get(), &counters, sizeof(counters))) {
      peak = std::max(peak,
                      static_cast<double>(counters.PeakWorkingSetSize) / static_cast<double>(kBytesPerMiB));
    }
  });
  Require(result.exit_code == 0 && peak != 0, "measuring memory");
  return peak;
}

void BenchMemory() {
  const double empty = PeakMemory(EmptyProgram(), {}, {});
  // A copy, because a helper that has installed an update is deleted at the next start of Windows.
  test::ScratchDirectory place;
  const std::wstring helper = place / kHelperFileName;
  Require(CopyFileW(test::BuiltProgram(kHelperFileName).c_str(), helper.c_str(), TRUE), "copying the helper");
  Report("peak memory of an empty windowed program", empty, "MiB", 0, 0);
  for (const auto& [what, size] :
       {std::pair<const char*, WorkloadSize>{"1 GiB in 8 files", {8, 128 * kBytesPerMiB}},
        std::pair<const char*, WorkloadSize>{"1,022 files", {1'022, 1'024}}}) {
    const Workload workload(size, helper, EmptyProgram());
    const OwnedHandle parent = test::MakeInheritableEvent(true);
    const OwnedHandle lock = test::MakeInheritableMutex();
    std::vector<std::wstring> arguments = workload.ApplyOperands(parent.Get(), lock.Get());
    arguments.insert(arguments.begin(), L"--apply-plan");
    const double peak = PeakMemory(helper, arguments, {parent.Get(), lock.Get()});
    Report((std::string("peak memory above it: update of ") + what).c_str(), peak - empty, "MiB", 0, 8.0);
  }
}

// Runs a program to its successful end; `command_line` begins with a word for its name. Returns the seconds.
double TimeProgram(const std::wstring& program, std::wstring command_line) {
  return TimeOf([&] {
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;  // and none given: what it says goes nowhere
    PROCESS_INFORMATION started{};
    Require(CreateProcessW(program.c_str(), command_line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                           &startup, &started),
            "starting a program");
    const OwnedHandle process(started.hProcess);
    const OwnedHandle thread(started.hThread);
    WaitForSingleObject(process.Get(), INFINITE);
    DWORD exit_code = 1;
    GetExitCodeProcess(process.Get(), &exit_code);
    Require(exit_code == 0, "a program");
  });
}

void BenchStart() {
  const std::wstring helper = test::BuiltProgram(kHelperFileName);
  std::vector<double> verdict;
  std::vector<double> empty;
  for (int round = 0; round < 40; ++round) {
    verdict.push_back(TimeProgram(helper, L"helper --validate-path a/b.txt"));
    empty.push_back(TimeProgram(EmptyProgram(), L"empty nothing"));
  }
  Report("start of an empty program", 1000 * Median(empty), "ms", 0, 0);
  Report("start to verdict of --validate-path against it", Median(verdict) / Median(empty), "x", 0, 1.15);
}

// A start of a client with nothing to settle: what a game's start takes longer because of the update library.
void BenchClient() {
  const test::ScratchDirectory scratch;
  const std::wstring lock_path = scratch / L"lock";
  const std::string pem = test::ReadTestFile(test::BuiltProgram(L"development-key\\public.pem"));
  const talvex_key key = {pem.data(), pem.size()};
  talvex_options options = {};
  options.struct_size = sizeof(options);
  options.keys = &key;
  options.key_count = 1;
  options.client_directory = scratch.Path().c_str();
  std::vector<double> lock;
  std::vector<double> start;
  for (int round = 0; round < 200; ++round) {
    lock.push_back(TimeOf([&] {
      const OwnedHandle file(CreateFileW(lock_path.c_str(), GENERIC_WRITE | DELETE, 0, nullptr, OPEN_ALWAYS,
                                         FILE_FLAG_DELETE_ON_CLOSE, nullptr));
      Require(file.IsValid(), "a lock");
    }));
    start.push_back(TimeOf([&] {
      talvex_client* client = nullptr;
      std::int32_t what = 0;
      Require(talvex_open(&options, &client) == TALVEX_OK && talvex_settle(client, &what) == TALVEX_OK &&
                  what == TALVEX_START_GAME && talvex_confirm(client) == TALVEX_OK &&
                  talvex_close(client) == TALVEX_OK,
              "a client's start");
    }));
  }
  Report("a client's start with nothing to settle, beyond its lock", 1000 * (Median(start) - Median(lock)),
         "ms", 0, 5);
}

// The publisher's tool on a release of 1,024 files and 1 GiB, against the least that has to be done with its
// bytes.
void BenchPublish() {
  constexpr int kRounds = 3;
  test::ScratchDirectory scratch;
  const std::wstring client = scratch / L"client";
  std::vector<std::wstring> names = {kClientFileName, kHelperFileName};
  for (const std::wstring& name : names) {
    test::WriteTestFile(client + L"\\" + name, test::ReadTestFile(test::BuiltProgram(name)));
  }
  for (std::size_t i = names.size(); i < kManifestFileLimit; ++i) {
    names.push_back(std::to_wstring(i % 16) + L"\\" + std::to_wstring(i));
    test::WriteTestFile(client + L"\\" + names.back(), std::string(kBytesPerMiB, static_cast<char>(i)));
  }
  const std::wstring program = test::BuiltProgram(L"TalvexPublish.exe");
  const std::wstring key =
      L" --allow-development --key \"" + test::BuiltProgram(L"development-key\\public.pem") + L"\"";
  const auto hash_all = [&](const std::wstring& directory) {
    for (const std::wstring& name : names) {
      Require(BareHash(directory + L"\\" + name), "hashing");
    }
  };
  const std::wstring release = scratch / L"release";
  const std::wstring copy = scratch / L"copy";
  struct {
    double copying, making, hashing, verifying;
  } best = {1e9, 1e9, 1e9, 1e9};
  const auto measure = [](double& fastest, const std::function<void()>& work) {
    fastest = std::min(fastest, TimeOf(work));
  };
  // The fastest of each: what the disk still has to do for the step before only adds.
  for (int round = 0; round < kRounds; ++round) {
    measure(best.copying, [&] {
      for (const std::wstring& name : names) {
        test::MakeTestDirectory(std::wstring(ParentOfRelativePath(copy + L"\\" + name)));
        Require(CopyFileW((client + L"\\" + name).c_str(), (copy + L"\\" + name).c_str(), TRUE), "copying");
      }
      hash_all(client);
    });
    test::RemoveTestTree(copy);
    measure(best.making, [&] {
      TimeProgram(program,
                  L"publish release " + client + L" --out " + release + L" --name 1 --sequence 1" + key);
    });
    const SignedPairPaths pair = SignedPairIn(release);
    test::WriteTestFile(pair.signature, test::SignWithKey(test::ReadTestFile(pair.manifest)));
    measure(best.hashing, [&] { hash_all(FilesDirectory(release)); });
    measure(best.verifying, [&] { TimeProgram(program, L"publish verify " + release + key); });
    test::RemoveTestTree(release);
  }
  Report("copying and hashing 1 GiB in 1,024 files", best.copying, "s", 0, 0);
  Report("hashing them", best.hashing, "s", 0, 0);
  Report("making a release of 1 GiB against copying and hashing", best.making / best.copying, "x", 0, 1.3);
  Report("verifying a release of 1 GiB against hashing", best.verifying / best.hashing, "x", 0, 1.3);
}

void BenchSize() {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  Require(GetFileAttributesExW(test::BuiltProgram(kHelperFileName).c_str(), GetFileExInfoStandard, &data),
          "looking for the program");
  Report("size of TalvexUpdateHelper.exe", data.nFileSizeLow / 1024.0, "KiB", 0, 400);
}

}  // namespace
}  // namespace talvex::bench

int main(int count, char** arguments) {
  using namespace talvex::bench;
  struct {
    const char* name;
    void (*run)();
  } const benches[] = {{"size", BenchSize},     {"parse", BenchParsers}, {"start", BenchStart},
                       {"hash", BenchHash},     {"memory", BenchMemory}, {"apply", BenchApply},
                       {"growth", BenchGrowth}, {"client", BenchClient}, {"publish", BenchPublish}};
  const auto is_known = [&](const char* name) {
    return std::any_of(std::begin(benches), std::end(benches),
                       [&](const auto& bench) { return std::strcmp(name, bench.name) == 0; });
  };
  if (count > 1 && std::all_of(arguments + 2, arguments + count, is_known)) {
    Csv().open(arguments[1]);
  }
  if (!Csv().is_open()) {
    std::fprintf(stderr, "Usage: bench.exe CSV [NAME...]\n");
    return 2;
  }
  talvex::console_reporting = true;
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  Csv() << "figure,value,unit,bound,within\n";
  for (const auto& bench : benches) {
    if (count == 2 || std::any_of(arguments + 2, arguments + count,
                                  [&](const char* name) { return std::strcmp(name, bench.name) == 0; })) {
      bench.run();
    }
  }
  Csv().close();
  std::printf("%s\n", all_within ? "Every figure keeps its bound." : "Bounds were missed.");
  return all_within ? 0 : 1;
}
