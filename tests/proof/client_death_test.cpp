// A client dies at one of its Win32 calls, while it settles an update or prepares the next one. After a plain
// start, and the rollback if that start asks for one, the directory holds one whole release, nobody has it
// taken, and the next update can be staged.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "client/talvex_update.h"
#include "core/publisher_key.h"
#include "core/text_encoding.h"
#include "tests/proof/small_client.h"

namespace talvex::test {
namespace {

const TestRelease kOld = {
    "1.0", 1, {{"Talvex.exe", "old"}, {"TalvexUpdateHelper.exe", "the helper"}, {"a/gone", "x"}}};
const TestRelease kNew = {
    "2.0", 2, {{"Talvex.exe", "new"}, {"TalvexUpdateHelper.exe", "the helper"}, {"a/new", "y"}}};
const TestRelease kNext = {"3.0", 3, {{"Talvex.exe", "next"}, {"TalvexUpdateHelper.exe", "the helper"}}};

// Opens, settles and, if the game may run, confirms. What to do, or the code of the failure.
std::int32_t Start(const SmallClient& small, talvex_client*& client) {
  const talvex_key key = {PublisherKeyBlob().data(), PublisherKeyBlob().size()};
  talvex_options options = {};
  options.struct_size = sizeof(options);
  options.keys = &key;
  options.key_count = 1;
  options.client_directory = small.root.c_str();
  std::int32_t start = 0;
  talvex_result result = talvex_open(&options, &client);
  result = result == TALVEX_OK ? talvex_settle(client, &start) : result;
  if (result == TALVEX_OK && start == TALVEX_START_GAME) {
    result = talvex_confirm(client);
  }
  return result == TALVEX_OK ? start : talvex_last_error(client, nullptr, 0);
}

// From the offer to the start of the helper.
talvex_result Update(talvex_client* client, const TestRelease& release) {
  const std::string manifest = release.ManifestText();
  const std::string signature = release.Signature();
  talvex_file file = {};
  file.struct_size = sizeof(file);
  talvex_result result =
      talvex_check(client, manifest.data(), manifest.size(), signature.data(), signature.size(), nullptr);
  while (result < TALVEX_E_ARGUMENT && (result = talvex_next_file(client, &file)) == TALVEX_OK) {
    WriteTestFile(file.destination, release.files.at(WideToUtf8(file.path)));
  }
  result = result == TALVEX_DONE ? talvex_stage(client) : result;
  return result == TALVEX_OK ? talvex_install(client, L"--windowed") : result;
}

// What is wrong with the client after a death; "" when all is well.
std::string Recover(SmallClient& small) {
  talvex_client* client = nullptr;
  std::int32_t start = 0;
  const RunRecord first = RunWithFault([&] { return start = Start(small, client); }, {}, small.settings);
  if (start == TALVEX_START_GAME) {  // whatever was wrong, the next start agrees
    talvex_close(client);
    start = Start(small, client);
  }
  if (start == TALVEX_START_EXIT) {
    talvex_close(client);
    if (!first.client_started || small.Rollback().exit_code != 0) {
      return "the rollback that was asked for does not succeed";
    }
    start = Start(small, client);
  }
  Tree files = SmallClient::ClientFiles(small.Read());
  std::erase_if(files, [](const auto& file) { return file.first.starts_with(L".talvex-update~"); });
  std::string wrong = start == TALVEX_START_GAME ? "" : "start: " + std::to_string(start) + "\n";
  if (files != small.old_files && files != small.new_files && files != small.Marked(small.old_files)) {
    wrong += TreeDifference(files, small.old_files);
  }
  const RunRecord next = RunWithFault([&] { return Update(client, kNext); }, {}, small.settings);
  wrong += next.exit_code == TALVEX_OK ? "" : "update: " + std::to_string(next.exit_code) + "\n";
  talvex_close(client);
  return wrong;
}

TEST(ClientDeath, LeavesOneWholeReleaseAndNothingThatBlocks) {
  SmallClient small(kOld, kNew);
  small.settings.after_change = [](const RunRecord&) { return std::string(); };
  const Tree installed = small.Read();
  small.Stage();
  const Tree staged = small.Read();
  ASSERT_EQ(small.Apply().exit_code, 0);
  const Tree updated = small.Read();
  small.Become(staged);
  std::size_t last_replacement = 0;
  const RunRecord clean = small.Apply();
  for (std::size_t k = 0; k < clean.calls.size(); ++k) {
    last_replacement = clean.calls[k].name == "ReplaceFileW" ? k : last_replacement;
  }
  small.Become(staged);
  ASSERT_TRUE(small.Apply({Fault::kDieAfter, last_replacement}).died);
  const struct {
    const char* name;
    Tree tree;
    std::int32_t start;
    bool updates;
  } scenes[] = {{"confirming an update", updated, TALVEX_START_GAME, false},
                {"rolling back", small.Read(), TALVEX_START_EXIT, false},
                {"preparing an update", installed, TALVEX_START_GAME, true}};
  for (const auto& scene : scenes) {
    const auto run = [&](const FaultPoint& point) {
      talvex_client* client = nullptr;
      small.Become(scene.tree);
      RunRecord record = RunWithFault(
          [&] {
            const std::int32_t start = Start(small, client);
            return scene.updates ? Update(client, kNew) : start;
          },
          point, small.settings);
      talvex_close(client);  // a dead client's handle is busy for ever, and its files are closed
      return record;
    };
    static_cast<void>(run({}));  // clears what was left before, so that no run below makes fewer calls
    const RunRecord undisturbed = run({});
    EXPECT_EQ(undisturbed.exit_code, scene.updates ? TALVEX_OK : scene.start);
    int lost = 0;
    for (std::size_t k = 0; k < undisturbed.calls.size(); k += 7) {
      const FaultPoint point = {k % 2 == 0 ? Fault::kDieBefore : Fault::kDieAfter, k};
      const RunRecord record = run(point);
      EXPECT_TRUE(record.died);
      if (record.client_started && !scene.updates) {
        EXPECT_EQ(small.Rollback().exit_code, 0);  // the helper was started, and goes on by itself
      }
      const std::string wrong = Recover(small);
      lost += wrong.empty() ? 0 : 1;
      EXPECT_EQ(wrong, "") << scene.name << " " << k << " " << undisturbed.calls[k].name << " "
                           << WideToUtf8(undisturbed.calls[k].Path());
    }
    std::printf("counted: a client dies, %s: %zu points: %d lost\n", scene.name,
                (undisturbed.calls.size() + 6) / 7, lost);
  }
}

}  // namespace
}  // namespace talvex::test
