// What only shows after hundreds of runs.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "core/text_encoding.h"
#include "tests/support/open_handles.h"
#include "tests/support/small_client.h"

namespace talvex::test {
namespace {

constexpr int kRounds = 200;

// Changes a release at random: about a third of its files replaced or removed, and some added.
TestRelease NextRelease(const TestRelease& release, std::mt19937& random) {
  TestRelease next{"r" + std::to_string(release.sequence + 1), release.sequence + 1, {}};
  for (const auto& [path, contents] : release.files) {
    const auto choice = random() % 6;
    if (choice != 0 || path == "TalvexUpdateHelper.exe") {
      next.files[path] =
          choice == 1 && path != "TalvexUpdateHelper.exe" ? std::to_string(random()) : contents;
    }
  }
  for (auto count = 1 + random() % 4; count != 0; --count) {
    std::string path;
    for (auto depth = random() % 3; depth != 0; --depth) {
      path += "folder" + std::to_string(random() % 3) + "/";
    }
    next.files[path + "file" + std::to_string(random() % 8)] =
        std::string(random() % 3000, static_cast<char>('a' + random() % 26)) + std::to_string(random());
  }
  return next;
}

// The model: which release the client has, and whether the last one failed.
TEST(Endurance, UpdatesAndRollbacksFollowTheModel) {
  const unsigned seed = std::random_device()();
  std::printf("seed %u\n", seed);
  std::mt19937 random(seed);
  const TestRelease first{"r1", 1, {{"Talvex.exe", "client"}, {"TalvexUpdateHelper.exe", "the helper"}}};
  SmallClient client(first, NextRelease(first, random));
  TestRelease installed = first;
  std::uint64_t sequence = 1;
  Tree marker;
  int deaths = 0;
  int rollbacks = 0;
  const auto expect = [&](const char* what, int round) {
    Tree expected = installed.sequence == client.new_release.sequence ? client.new_files : client.old_files;
    expected.insert(marker.begin(), marker.end());
    ASSERT_EQ(TreeDifference(SmallClient::ClientFiles(client.Read()), expected), "")
        << what << ", round " << round << ", seed " << seed;
  };
  const auto roll_back = [&](int round) {
    // A rollback may die too; run again, it goes on.
    for (std::size_t most_calls = 400; client.HasOwnJournal(client.Read()); most_calls *= 2) {
      const RunRecord record = client.Rollback({Fault::kDieBefore, random() % most_calls});
      ASSERT_EQ(record.violations, std::vector<std::string>()) << "round " << round << ", seed " << seed;
      ASSERT_EQ(record.exit_code, record.died ? -1 : 0) << WideToUtf8(record.message);
      deaths += record.died;
    }
    installed = client.old_release;
    marker = {{L"TalvexUpdateFailure.dat", client.RolledBack().at(L"TalvexUpdateFailure.dat")}};
    ++rollbacks;
  };
  for (int round = 0; round < kRounds && !HasFatalFailure(); ++round) {
    TestRelease next = NextRelease(installed, random);
    next.sequence = ++sequence;
    client.Offer(installed, next);
    client.StageAgain();
    // About half of the updates die somewhere.
    const RunRecord record = client.Apply({Fault::kDieAfter, random() % 2 == 0 ? SIZE_MAX : random() % 1000});
    EXPECT_EQ(record.violations, std::vector<std::string>()) << "round " << round << ", seed " << seed;
    ASSERT_EQ(record.exit_code, record.died ? -1 : 0) << WideToUtf8(record.message);
    deaths += record.died;
    const bool own_journal = client.HasOwnJournal(client.Read());
    if (record.died && own_journal) {
      roll_back(round);
    } else if (!record.died) {
      installed = client.new_release;
    }
    expect("after the update", round);
    if (!record.died && random() % 3 == 0) {
      roll_back(round);
      expect("after the rollback", round);
    }
  }
  std::printf("counted: endurance, seed %u: %d updates, %d rollbacks, %d deaths\n", seed, kRounds, rollbacks,
              deaths);
}

TEST(Endurance, FailingTransactionsLeaveNoHandleOpen) {
  SmallClient client({"1", 1, {{"TalvexUpdateHelper.exe", "the helper"}, {"a", "1"}, {"b", "1"}}},
                     {"2", 2, {{"TalvexUpdateHelper.exe", "the helper"}, {"a", "2"}, {"c", "2"}}});
  client.StageAgain();
  const Tree start = client.Read();
  const std::size_t calls = client.Apply().calls.size();
  std::size_t handles = 0;
  for (std::size_t i = 0; i < kRounds; ++i) {
    client.Become(start);
    const RunRecord record = client.Apply({Fault::kFailFromHere, i * calls / kRounds});
    EXPECT_EQ(record.violations, std::vector<std::string>());
    if (i == 0) {
      handles = CountOpenHandles();
    }
  }
  EXPECT_LT(CountOpenHandles(), handles + kRounds / 2);  // Windows opens some for itself
  EXPECT_GT(handles, 3u);
}

}  // namespace
}  // namespace talvex::test
