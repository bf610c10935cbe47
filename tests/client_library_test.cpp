// The update library inside this process: what it answers to wrong calls and wrong releases, and how it goes
// on with what was cut off.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>

#include "client/talvex_update.h"
#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "tests/support/library_calls.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

TEST(ClientLibrary, AnswersWrongOptionsWithACodeAndASentence) {
  const struct {
    talvex_result code;
    const char* sentence;
    std::function<void(Library&)> make_wrong;
  } cases[] = {
      {TALVEX_E_ARGUMENT, "A struct does not", [](Library& l) { l.options.struct_size = 4; }},
      {TALVEX_E_ARGUMENT, "No trusted key", [](Library& l) { l.options.key_count = 0; }},
      {TALVEX_E_KEY, "A trusted key is not", [](Library& l) { l.keys[1].size = 300; }},
      {TALVEX_E_KEY, "A trusted key is not", [](Library& l) { l.keys[0].size = 410; }},
      {TALVEX_E_KEY, "A trusted key is not", [](Library& l) { l.keys[0].bytes = nullptr; }},
      {TALVEX_E_DIRECTORY, "The client directory is missing",
       [](Library& l) { l.options.client_directory = L"C:\\none"; }},
      {TALVEX_E_DIRECTORY, "The client directory is empty",
       [](Library& l) { l.options.client_directory = L""; }},
      {TALVEX_E_DIRECTORY, "Talvex cannot be updated at the top",
       [](Library& l) { l.options.client_directory = L"C:\\"; }},
      {TALVEX_E_DIRECTORY, "Talvex cannot be updated at the top",
       [](Library& l) { l.options.client_directory = L"\\\\?\\C:\\"; }},
      {TALVEX_E_DIRECTORY, "Talvex cannot be updated on a network",
       [](Library& l) { l.options.client_directory = L"\\\\server\\share\\game"; }},
      {TALVEX_E_DIRECTORY, "The client directory is missing or is a reparse",
       [](Library& l) {
         MakeJunction(l.scratch / L"link", l.root);
         l.root = l.scratch / L"link";
         l.options.client_directory = l.root.c_str();
       }},
  };
  for (const auto& c : cases) {
    Library library;
    c.make_wrong(library);
    EXPECT_EQ(talvex_open(&library.options, &library.client), c.code);
    EXPECT_EQ(library.client, nullptr);
    EXPECT_EQ(library.LastCode(), c.code);
    EXPECT_TRUE(library.LastSentence().starts_with(c.sentence)) << library.LastSentence();
  }
  talvex_client* client = nullptr;
  EXPECT_EQ(talvex_open(nullptr, &client), TALVEX_E_ARGUMENT);
  EXPECT_EQ(talvex_open(nullptr, nullptr), TALVEX_E_ARGUMENT);
}

TEST(ClientLibrary, RefusesCallsOutOfOrderAndLosesNothing) {
  Library l;
  std::int32_t start = 0;
  talvex_file file = {};
  file.struct_size = sizeof(file);
  talvex_release release = {};
  wchar_t buffer[8] = {};
  const auto order = [&](talvex_result result) { EXPECT_EQ(result, TALVEX_E_ORDER) << l.LastSentence(); };
  ASSERT_EQ(talvex_open(&l.options, &l.client), TALVEX_OK);
  order(talvex_confirm(l.client));
  order(l.Check(kNew));
  order(talvex_next_file(l.client, &file));
  ASSERT_EQ(talvex_settle(l.client, &start), TALVEX_OK);
  order(talvex_settle(l.client, &start));
  order(talvex_next_file(l.client, &file));
  order(talvex_stage(l.client));
  order(talvex_install(l.client, nullptr));
  EXPECT_EQ(talvex_settle(l.client, nullptr), TALVEX_E_ARGUMENT);
  EXPECT_EQ(talvex_installed(l.client, &release), TALVEX_E_ARGUMENT);  // without its size
  EXPECT_EQ(talvex_check(l.client, nullptr, 0, nullptr, 0, nullptr), TALVEX_E_ARGUMENT);
  EXPECT_EQ(talvex_arguments(l.client, buffer, 0), TALVEX_E_ARGUMENT);
  EXPECT_EQ(talvex_arguments(l.client, buffer, 8), TALVEX_DONE);
  EXPECT_EQ(l.StageUpdate(kNew), TALVEX_OK) << l.LastSentence();
  EXPECT_EQ(l.Check({"3.0", 3, {}}), TALVEX_E_UNSIGNED);  // forgets what was staged
  order(talvex_install(l.client, nullptr));

  Library second;
  second.options.client_directory = l.root.c_str();
  EXPECT_EQ(second.Start(), TALVEX_E_ALREADY_RUNNING);
  talvex_client* const closed = l.client;
  EXPECT_EQ(talvex_close(closed), TALVEX_OK);
  EXPECT_EQ(second.Start(), TALVEX_START_GAME);
  for (const talvex_result result : {talvex_close(closed), talvex_confirm(closed), talvex_confirm(nullptr),
                                     talvex_last_error(closed, buffer, 8)}) {
    EXPECT_EQ(result, TALVEX_E_HANDLE);
  }
  EXPECT_STREQ(buffer, L"This is");
}

TEST(ClientLibrary, RefusesACallFromItsOwnCallbackAndCancels) {
  Library l;
  ASSERT_EQ(l.Start(), TALVEX_START_GAME);
  ASSERT_EQ(l.Check(kNew), TALVEX_OK);
  static talvex_result from_callback;
  l.client = nullptr;
  l.options.progress = [](void* self, std::int32_t phase, std::uint64_t,
                          std::uint64_t total) -> std::int32_t {
    EXPECT_EQ(phase, TALVEX_PHASE_COMPARE);
    EXPECT_EQ(total, 23u);
    from_callback = talvex_confirm(static_cast<Library*>(self)->client);
    return 0;
  };
  Library cancelling;
  cancelling.options.progress = l.options.progress;
  ASSERT_EQ(cancelling.Start(), TALVEX_START_GAME);
  ASSERT_EQ(cancelling.Check(kNew), TALVEX_OK);
  talvex_file file = {};
  file.struct_size = sizeof(file);
  EXPECT_EQ(talvex_next_file(cancelling.client, &file), TALVEX_E_CANCELLED);
  EXPECT_EQ(from_callback, TALVEX_E_IN_CALL);
  EXPECT_EQ(cancelling.LastSentence(), "Cancelled.");
}

TEST(ClientLibrary, AcceptsOnlyWhatMayFollow) {
  TestRelease same_number = kNew;
  same_number.sequence = 1;
  TestRelease foreign = kNew;
  foreign.key_folder = kOtherKey;
  TestRelease without_helper = kNew;
  without_helper.files.erase("TalvexUpdateHelper.exe");
  Library l;
  l.options.lowest_sequence = 2;
  ASSERT_EQ(l.Start(), TALVEX_START_GAME);
  EXPECT_EQ(l.Check(kOld), TALVEX_E_OLDER);  // below the floor
  EXPECT_EQ(l.Check(foreign), TALVEX_E_UNSIGNED);
  l.options.lowest_sequence = 0;
  ASSERT_EQ(l.Start(), TALVEX_START_GAME);
  EXPECT_EQ(l.Check(kOld), TALVEX_DONE);
  EXPECT_EQ(l.Check(same_number), TALVEX_E_OLDER);
  EXPECT_EQ(l.Check(without_helper), TALVEX_E_NO_HELPER);
  EXPECT_EQ(l.Check(kNew), TALVEX_OK);
  WriteTestFile(l.At(L"TalvexUpdateFailure.dat"), HexDigestOf(kNew.ManifestText()) + "\n");
  EXPECT_EQ(l.Check(kNew), TALVEX_E_FAILED_BEFORE);
  DeleteFileW(l.At(L"TalvexUpdateFailure.dat").c_str());
  // The cache says what was installed even when the state was changed.
  InstallTestRelease(kNew, l.root);
  WriteTestFile(l.At(L"TalvexUpdateState.dat"), "changed");
  EXPECT_EQ(l.Check(kOld), TALVEX_E_OLDER);
  // Attempts: three are free, the fourth has to wait for an hour.
  const auto attempts = [&](const char* count, std::int64_t seconds_ago) {
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    const auto units = (std::uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime;
    const auto last = static_cast<std::int64_t>(units / 10'000'000 - 11'644'473'600) - seconds_ago;
    WriteTestFile(l.At(L".talvex-update~attempts"), "TALVEX-UPDATE-ATTEMPTS-V1\nmanifest-sha256\t" +
                                                        HexDigestOf(kNew.ManifestText()) + "\ncount\t" +
                                                        count + "\nlast\t" + std::to_string(last) + "\n");
    return l.Check(kNew);
  };
  EXPECT_EQ(attempts("2", 0), TALVEX_OK);
  EXPECT_EQ(attempts("3", 3'500), TALVEX_E_POSTPONED);
  EXPECT_EQ(attempts("3", 3'700), TALVEX_OK);
  EXPECT_EQ(attempts("4", 14'300), TALVEX_E_POSTPONED);
  EXPECT_EQ(attempts("5", 57'500), TALVEX_E_POSTPONED);
  EXPECT_EQ(attempts("5", 57'700), TALVEX_OK);
  EXPECT_EQ(attempts("99", 86'300), TALVEX_E_POSTPONED);
  EXPECT_EQ(attempts("99", 86'500), TALVEX_OK);
  EXPECT_EQ(attempts("99", -100), TALVEX_OK);  // by a clock that was wrong
}

TEST(ClientLibrary, GoesOnWithADownloadThatWasCutOff) {
  Library l;
  ASSERT_EQ(l.Start(), TALVEX_START_GAME);
  ASSERT_EQ(l.Check(kNew), TALVEX_OK);
  EXPECT_EQ(l.Download(kNew, 4), "Data/a.bin 0/8\nData/b.bin 0/1\nTalvex.exe 0/8\n");
  ASSERT_EQ(l.Start(), TALVEX_START_GAME);
  ASSERT_EQ(l.Check(kNew), TALVEX_OK);
  TestRelease damaged = kNew;
  damaged.files["Talvex.exe"] = "client X";
  EXPECT_EQ(l.Download(damaged), "Data/a.bin 4/8\nTalvex.exe 4/8\n");
  EXPECT_EQ(talvex_stage(l.client), TALVEX_E_FILE);
  EXPECT_EQ(l.LastSentence(), "Talvex.exe: A file differs from its release.");
  EXPECT_EQ(l.Download(kNew), "Talvex.exe 0/8\n");
  EXPECT_EQ(talvex_stage(l.client), TALVEX_OK) << l.LastSentence();
  EXPECT_EQ(l.Plan(kNew),
            "TALVEX-APPLY-V1\nmanifest-sha256\t" + HexDigestOf(kNew.ManifestText()) +
                "\nfile\tData/a.bin\nfile\tData/b.bin\nfile\tTalvex.exe\ndelete\tData/gone.bin\n");
  // Of the installed release, what is damaged.
  WriteTestFile(l.At(L"Data\\a.bin"), "damaged");
  EXPECT_EQ(l.Check(kOld), TALVEX_DONE);
  EXPECT_EQ(l.Download(kOld), "Data/a.bin 0/5\n");
  WriteTestFile(l.At(L"Data\\a.bin"), "old a");
  EXPECT_EQ(l.Check(kOld), TALVEX_DONE);
  EXPECT_EQ(talvex_stage(l.client), TALVEX_DONE);
}

// What was found damaged is not played until it has been found whole, whatever became of the copies.
TEST(ClientLibrary, PlaysDamagedFilesOnlyOnceTheyAreWhole) {
  Library l;
  WriteTestFile(l.At(L"Data\\a.bin"), "dmged");
  WriteTestFile(l.At(L".talvex-update\\previous\\rollback.journal"), "broken");
  EXPECT_EQ(l.Start(), TALVEX_START_REPAIR);
  EXPECT_EQ(l.LastCode(), TALVEX_E_DAMAGED);
  EXPECT_EQ(l.LastSentence(), "Data\\a.bin: A file differs from its release.");
  EXPECT_EQ(l.StageUpdate(kNew), TALVEX_OK) << l.LastSentence();
  EXPECT_EQ(talvex_install(l.client, nullptr), TALVEX_E_SYSTEM);  // the helper is no program here
  EXPECT_TRUE(MayExist(l.At(L".talvex-update\\previous\\rollback.journal")));
  RemoveTestTree(l.At(L".talvex-update"));  // what a helper would have cleared before it failed
  EXPECT_EQ(l.Start(), TALVEX_START_REPAIR);
  WriteTestFile(l.At(L"Data\\a.bin"), "old a");
  EXPECT_EQ(l.Start(), TALVEX_START_GAME);
  WriteTestFile(l.At(L"Data\\a.bin"), "dmged");
  EXPECT_EQ(l.Start(), TALVEX_START_GAME);  // nothing to settle, so nothing is read
}

// A helper trusts one key: what another key has signed proves no deletion to it. And what a plan cannot hold
// is not deleted.
TEST(ClientLibrary, LeavesRetiredFilesWhereTheyCannotBeProvenOrHaveNoRoom) {
  TestRelease of_other_key = kOld;
  of_other_key.key_folder = kOtherKey;
  TestRelease many = kOld;
  TestRelease renamed = kOld;
  const std::string folder = std::string(70, 'd') + "/" + std::string(70, 'e') + "/";
  for (int i = 0; i < 1'000; ++i) {
    many.files[folder + "old-" + std::to_string(i)] = "x";
    renamed.files[folder + "new-" + std::to_string(i)] = "x";
  }
  renamed.sequence = 2;
  const struct {
    const TestRelease& installed;
    const TestRelease& offered;
  } cases[] = {{of_other_key, kNew}, {many, renamed}};
  for (const auto& c : cases) {
    Library l;
    l.keys[1] = {l.other_key.data(), l.other_key.size()};
    RemoveTestTree(l.root);
    l.root = L"C:\\temp\\t" + std::to_wstring(GetCurrentProcessId());  // short, for the long paths
    l.options.client_directory = l.root.c_str();
    InstallTestRelease(c.installed, l.root);
    ASSERT_EQ(l.Start(), TALVEX_START_GAME);
    EXPECT_EQ(l.StageUpdate(c.offered), TALVEX_OK) << l.LastSentence();
    EXPECT_EQ(l.Plan(c.offered).find("\ndelete\t"), std::string::npos);
    talvex_close(l.client);
    RemoveTestTree(l.root);
  }
}

}  // namespace
}  // namespace talvex::test
