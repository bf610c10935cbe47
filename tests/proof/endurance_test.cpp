// What only shows after hundreds of runs: random updates, about half of them dying somewhere, and their
// rollbacks, dying too, follow a model, and the number of open handles stays as it was.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>

#include "core/text_encoding.h"
#include "tests/proof/small_client.h"
#include "tests/support/open_handles.h"

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
      const char* const folders[] = {"", "folder/", "other/", "folder/folder/", "folder/other/"};
      next.files[folders[random_() % 5] + ("file" + std::to_string(random_() % 8))] =
          std::string(random_() % 3000, 'a') + next.name;
    }
    next.files["TalvexUpdateHelper.exe"] = "the helper";
    return next;
  }

  static void ExpectDeathOrSuccess(const RunRecord& record) {
    EXPECT_EQ(record.violations, "");
    ASSERT_EQ(record.exit_code, record.died ? -1 : 0) << WideToUtf8(record.message);
  }

  void UpdateAndPerhapsRollBack(std::uint64_t sequence) {
    client_.Offer(installed_, NextRelease(sequence));
    client_.Stage();
    const RunRecord update =
        client_.Apply({Fault::kDieAfter, random_() % 2 == 0 ? SIZE_MAX : random_() % 1000});
    ASSERT_NO_FATAL_FAILURE(ExpectDeathOrSuccess(update));
    bool is_updated = !update.died;
    if (client_.HasOwnJournal(client_.Read()) && (update.died || random_() % 3 == 0)) {
      // A rollback may die too; run again, it goes on.
      for (std::size_t limit = 400; client_.HasOwnJournal(client_.Read()); limit *= 2) {
        ASSERT_NO_FATAL_FAILURE(
            ExpectDeathOrSuccess(client_.Rollback({Fault::kDieBefore, random_() % limit})));
      }
      is_updated = false;
      mark_ = client_.Marked({});
    }
    installed_ = is_updated ? client_.new_release : client_.old_release;
    Tree expected = is_updated ? client_.new_files : client_.old_files;
    expected.insert(mark_.begin(), mark_.end());
    ASSERT_EQ(TreeDifference(SmallClient::ClientFiles(client_.Read()), expected), "");
  }

  const unsigned seed_ = std::random_device()();
  std::mt19937 random_{seed_};
  TestRelease installed_{"r1", 1, {{"Talvex.exe", "client"}, {"TalvexUpdateHelper.exe", "the helper"}}};
  Tree mark_;  // of the last failure
  SmallClient client_{installed_, installed_};
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
  std::printf("counted: endurance, seed %u: %d updates\n", seed_, kRounds);
}

}  // namespace
}  // namespace talvex::test
