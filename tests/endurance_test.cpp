// What only shows after hundreds of runs: random updates, about half of them dying somewhere, and their
// rollbacks, dying too, follow a model, and the number of open handles stays as it was.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>

#include "core/text_encoding.h"
#include "tests/support/open_handles.h"
#include "tests/support/small_client.h"

namespace talvex::test {
namespace {

constexpr int kRounds = 200;

class Endurance : public testing::Test {
 protected:
  // The installed release, changed at random: about a third of its files replaced or removed, and some added.
  TestRelease NextRelease(std::uint64_t sequence) {
    TestRelease next{"r" + std::to_string(sequence), sequence, {}};
    for (const auto& [path, contents] : installed_.files) {
      if (const auto choice = random_() % 6; choice != 0) {
        next.files[path] = choice == 1 ? std::to_string(random_()) : contents;
      }
    }
    for (auto count = 1 + random_() % 4; count != 0; --count) {
      std::string path;
      for (auto depth = random_() % 3; depth != 0; --depth) {
        path += "folder" + std::to_string(random_() % 3) + "/";
      }
      next.files[path + "file" + std::to_string(random_() % 8)] =
          std::string(random_() % 3000, 'a') + next.name;
    }
    next.files["TalvexUpdateHelper.exe"] = "the helper";
    return next;
  }

  // A run either dies or succeeds.
  void Expect(const RunRecord& record) {
    EXPECT_EQ(record.violations, "");
    ASSERT_EQ(record.exit_code, record.died ? -1 : 0) << WideToUtf8(record.message);
    deaths_ += record.died ? 1 : 0;
  }

  void UpdateAndPerhapsRollBack(std::uint64_t sequence) {
    client_.Offer(installed_, NextRelease(sequence));
    client_.Stage();
    const RunRecord update =
        client_.Apply({Fault::kDieAfter, random_() % 2 == 0 ? SIZE_MAX : random_() % 1000});
    ASSERT_NO_FATAL_FAILURE(Expect(update));
    Tree expected = update.died ? client_.old_files : client_.new_files;
    installed_ = update.died ? client_.old_release : client_.new_release;
    if (client_.HasOwnJournal(client_.Read()) && (update.died || random_() % 3 == 0)) {
      // A rollback may die too; run again, it goes on.
      for (std::size_t limit = 400; client_.HasOwnJournal(client_.Read()); limit *= 2) {
        ASSERT_NO_FATAL_FAILURE(Expect(client_.Rollback({Fault::kDieBefore, random_() % limit})));
      }
      expected = client_.old_files;
      installed_ = client_.old_release;
      mark_ = client_.Marked({});
      ++rollbacks_;
    }
    expected.insert(mark_.begin(), mark_.end());
    ASSERT_EQ(TreeDifference(SmallClient::ClientFiles(client_.Read()), expected), "");
  }

  const unsigned seed_ = std::random_device()();
  std::mt19937 random_{seed_};
  TestRelease installed_{"r1", 1, {{"Talvex.exe", "client"}, {"TalvexUpdateHelper.exe", "the helper"}}};
  Tree mark_;  // of the last failure
  SmallClient client_{installed_, installed_};
  int deaths_ = 0;
  int rollbacks_ = 0;
};

TEST_F(Endurance, UpdatesAndRollbacksFollowTheModel) {
  std::size_t handles = 0;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("seed " + std::to_string(seed_) + ", round " + std::to_string(round));
    ASSERT_NO_FATAL_FAILURE(UpdateAndPerhapsRollBack(static_cast<std::uint64_t>(round) + 2));
    handles = round == 0 ? CountOpenHandles() : handles;
  }
  EXPECT_GT(handles, 3u);
  EXPECT_LT(CountOpenHandles(), handles + kRounds / 2);  // Windows opens some for itself
  std::printf("counted: endurance, seed %u: %d updates, %d rollbacks, %d deaths\n", seed_, kRounds,
              rollbacks_, deaths_);
}

}  // namespace
}  // namespace talvex::test
