// The update library inside this process: what it answers to wrong calls and wrong releases, how it goes on
// with what was cut off, and that nothing that others put into the client directory keeps the game from
// starting or an update from being staged.

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "client/helper_place.h"
#include "client/talvex_update.h"
#include "core/owned_handle.h"
#include "core/publisher_key.h"
#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "tests/support/import_patch.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

const TestRelease kOld = {"1.0",
                          1,
                          {{"Talvex.exe", "client 1"},
                           {"TalvexUpdateHelper.exe", "helper"},
                           {"Data/a.bin", "old a"},
                           {"Data/gone.bin", "retired"}}};
const TestRelease kNew = {"2.0",
                          2,
                          {{"Talvex.exe", "client 2"},
                           {"TalvexUpdateHelper.exe", "helper"},
                           {"Data/a.bin", "a is new"},
                           {"Data/b.bin", "b"}}};

// A client directory with the old release, and calls to the library.
class Library {
 public:
  Library() {
    InstallTestRelease(kOld, root);
    other_key = ReadTestFile(L"fixtures\\other-key\\public.pem");
    options.struct_size = sizeof(options);
    options.client_directory = root.c_str();
    options.keys = keys;
    options.key_count = 2;
    options.context = this;
    options.log = [](void* self, const wchar_t* line) {
      static_cast<Library*>(self)->log += WideToUtf8(line) + "\n";
    };
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() { talvex_close(client); }

  // Opens and settles; what to do then, or the failure.
  std::int32_t Start() {
    talvex_close(client);
    log.clear();
    std::int32_t start = 0;
    const talvex_result result = talvex_open(&options, &client);
    return result != TALVEX_OK ? result : talvex_settle(client, &start) != TALVEX_OK ? LastCode() : start;
  }
  talvex_result Check(const TestRelease& release) {
    const std::string manifest = release.ManifestText();
    const std::string signature = release.Signature();
    return talvex_check(client, manifest.data(), manifest.size(), signature.data(), signature.size(),
                        nullptr);
  }
  // The missing files as "path present/size", each downloaded up to `bytes`.
  std::string Download(const TestRelease& release, std::size_t bytes = std::string::npos) {
    std::string listed;
    talvex_file file = {};
    file.struct_size = sizeof(file);
    talvex_result result = TALVEX_OK;
    while ((result = talvex_next_file(client, &file)) == TALVEX_OK) {
      const std::string path = WideToUtf8(file.path);
      listed += path + " " + std::to_string(file.present) + "/" + std::to_string(file.size) + "\n";
      const auto present = static_cast<std::size_t>(file.present);
      const std::string arrived = ReadTestFile(file.destination).substr(0, present);
      WriteTestFile(file.destination, arrived + release.files.at(path).substr(present, bytes));
    }
    EXPECT_EQ(result, TALVEX_DONE) << LastSentence();
    return listed;
  }
  // From the offer to the plan.
  talvex_result StageUpdate(const TestRelease& release) {
    EXPECT_EQ(Check(release), TALVEX_OK) << LastSentence();
    Download(release);
    return talvex_stage(client);
  }
  std::string Plan(const TestRelease& release) const {
    return ReadTestFile(
        At(L".talvex-update\\" + Utf8ToWide(HexDigestOf(release.ManifestText())) + L"\\apply.plan"));
  }

  talvex_result LastCode() const { return talvex_last_error(client, nullptr, 0); }
  std::string LastSentence() const {
    wchar_t sentence[300];
    talvex_last_error(client, sentence, std::size(sentence));
    return WideToUtf8(sentence);
  }
  std::wstring At(const std::wstring& relative) const { return root + L"\\" + relative; }

  ScratchDirectory scratch;
  std::wstring root = scratch / L"client";
  std::string other_key;
  std::string development_key = ReadTestFile(L"development-key\\public.pem");
  talvex_key keys[2] = {{PublisherKeyBlob().data(), PublisherKeyBlob().size()},
                        {development_key.c_str(), development_key.size() + 1}};
  talvex_options options = {};
  talvex_client* client = nullptr;
  std::string log;
};

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

// Replacements for functions of Windows, and what they lead to otherwise.
decltype(&CreateFileW) g_create_file = nullptr;
decltype(&GetVolumeInformationByHandleW) g_volume_information = nullptr;
decltype(&CreateDirectoryW) g_create_directory = nullptr;
DWORD g_lock_error = ERROR_SUCCESS;
int g_volumes_without_lists = 0;

// The next two deny as the access list of a directory with a file "denied" or "previous\denied" in it would.
// (Nothing is denied to Wine's user.)
bool IsDenied(const std::wstring& directory) {
  const bool is_denied = MayExist(directory + L"\\denied") || MayExist(directory + L"\\previous\\denied");
  SetLastError(is_denied ? ERROR_ACCESS_DENIED : ERROR_SUCCESS);
  return is_denied;
}
HANDLE WINAPI DenyAdding(const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                         DWORD disposition, DWORD flags, HANDLE model) {
  return access == (FILE_ADD_FILE | FILE_ADD_SUBDIRECTORY) && IsDenied(path)
             ? INVALID_HANDLE_VALUE
             : g_create_file(path, access, share, security, disposition, flags, model);
}
BOOL WINAPI DenyMaking(const wchar_t* path, SECURITY_ATTRIBUTES* security) {
  const std::wstring_view made = path;
  return !IsDenied(std::wstring(made.substr(0, made.rfind(L'\\')))) && g_create_directory(path, security);
}
HANDLE WINAPI FailToLock(const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                         DWORD disposition, DWORD flags, HANDLE model) {
  if (std::wstring_view(path).ends_with(L"~lock")) {
    SetLastError(g_lock_error);
    return INVALID_HANDLE_VALUE;
  }
  return g_create_file(path, access, share, security, disposition, flags, model);
}
HANDLE WINAPI FailToLockWhatExists(const wchar_t* path, DWORD access, DWORD share,
                                   SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flags,
                                   HANDLE model) {
  g_lock_error = ERROR_ACCESS_DENIED;
  return (MayExist(path) ? FailToLock : g_create_file)(path, access, share, security, disposition, flags,
                                                       model);
}
BOOL WINAPI HideAccessLists(HANDLE file, wchar_t* name, DWORD name_size, DWORD* serial, DWORD* longest,
                            DWORD* flags, wchar_t* system, DWORD system_size) {
  const BOOL ok = g_volume_information(file, name, name_size, serial, longest, flags, system, system_size);
  *flags &= g_volumes_without_lists-- > 0 ? ~DWORD{FILE_PERSISTENT_ACLS} : ~DWORD{0};
  return ok;
}
BOOL WINAPI ReportFull(const wchar_t*, ULARGE_INTEGER* available, ULARGE_INTEGER*, ULARGE_INTEGER*) {
  *available = {};
  return TRUE;
}

// (Not shown here: a work directory that is a link. Windows renames the link, Wine what it leads to.)
TEST(ClientLibrary, StartsTheGameAndStagesWhateverOthersHavePutThere) {
  const std::wstring work = L".talvex-update";
  const std::wstring stage = work + L"\\" + Utf8ToWide(HexDigestOf(kNew.ManifestText()));
  const std::wstring state = L"TalvexUpdateState.dat";
  const std::wstring marker = L"TalvexUpdateFailure.dat";
  const std::wstring cache = L".talvex-update-cache";
  const auto change_state = [&](Library& l, const std::wstring& left) {
    WriteTestFile(l.At(state), ReadTestFile(l.At(state)).replace(0, 1, "X"));
    WriteTestFile(l.At(left), "broken");
  };
  const std::function<void(Library&)> surroundings[] = {
      [&](Library& l) { WriteTestFile(l.At(work), "a file"); },
      [&](Library& l) {
        WriteTestFile(l.At(work + L"\\file"), "read-only");
        SetFileAttributesW(l.At(work + L"\\file").c_str(), FILE_ATTRIBUTE_READONLY);
      },
      [&](Library& l) {
        MakeTestDirectory(l.At(work + L"\\stage"));
        MakeJunction(l.At(work + L"\\stage\\link"), l.scratch / L"others");
      },
      [&](Library& l) {
        MakeTestDirectory(l.At(work + L"\\previous"));
        MakeJunction(l.At(work + L"\\previous\\link"), l.scratch / L"others");
      },
      [&](Library& l) {
        MakeTestDirectory(l.At(work));
        WriteTestFile(L"\\\\?\\" + l.At(work + L"\\dot."), "");
      },
      [&](Library& l) {
        WriteTestFile(l.At(work + L"\\previous\\failed"), "");
        WriteTestFile(l.At(work + L"\\previous\\rollback.journal"), "broken");
      },
      [&](Library& l) { WriteTestFile(l.At(work + L"\\previous\\rollback.journal"), "broken"); },
      [&](Library&) {
        SetEnvironmentVariableW(L"TALVEX_UPDATE_RELAUNCHED_MANIFEST", std::wstring(64, L'0').c_str());
        SetEnvironmentVariableW(L"TALVEX_UPDATE_HEALTH_LOCK_HANDLE", L"4");
      },
      [&](Library& l) { WriteTestFile(l.At(L".talvex-update~lock"), "left by a power cut"); },
      [&](Library& l) { MakeTestDirectory(l.At(L".talvex-update~lock")); },
      [&](Library& l) { WriteTestFile(l.At(work + L"\\previous"), "a file"); },
      [&](Library& l) { WriteTestFile(l.At(stage), "a file"); },
      [&](Library& l) { WriteTestFile(l.At(stage + L"\\files\\Data"), "a file"); },
      [&](Library& l) { MakeTestDirectory(l.At(stage + L"\\files\\Talvex.exe\\folder")); },
      [&](Library& l) { MakeTestDirectory(l.At(stage + L"\\apply.plan")); },
      [&](Library& l) {
        WriteTestFile(l.At(stage + L"\\manifest.txt"), "read-only");
        SetFileAttributesW(l.At(stage + L"\\manifest.txt").c_str(), FILE_ATTRIBUTE_READONLY);
      },
      [&](Library& l) {
        MakeTestDirectory(l.At(stage));
        MakeJunction(l.At(stage + L"\\files"), l.scratch / L"others");
      },
      [&](Library& l) {
        MakeTestDirectory(l.At(stage + L"\\files\\Data"));
        CreateHardLinkW(l.At(stage + L"\\files\\Data\\a.bin").c_str(),
                        (l.scratch / L"others\\precious").c_str(), nullptr);
      },
      [&](Library& l) { WriteTestFile(l.At(stage + L"\\files\\denied"), ""); },
      [&](Library& l) { change_state(l, work + L"\\previous\\file"); },
      [&](Library& l) { change_state(l, work + L"\\previous\\rollback.journal"); },
      [&](Library& l) { change_state(l, L".talvex-update~damaged"); },
      [&](Library& l) {
        DeleteFileW(l.At(state).c_str());
        MakeTestDirectory(l.At(state + L"\\folder"));
        MakeTestDirectory(l.At(marker));
        DeleteFileW(l.At(cache + L"\\manifest.txt").c_str());
        MakeTestDirectory(l.At(cache + L"\\manifest.txt"));
      },
      [&](Library& l) {
        RemoveTestTree(l.At(cache));
        WriteTestFile(l.At(cache), "a file");
        MakeTestDirectory(l.At(marker + L".new"));
      },
  };
  g_create_file = ImportedFunction<decltype(CreateFileW)>("CreateFileW");
  const ImportPatch patch("CreateFileW", &DenyAdding);
  for (const auto& prepare : surroundings) {
    SCOPED_TRACE(&prepare - surroundings);
    Library l;
    WriteTestFile(l.scratch / L"others\\precious", "mine");
    prepare(l);
    EXPECT_EQ(l.Start(), TALVEX_START_GAME) << l.LastSentence() << l.log;
    EXPECT_EQ(talvex_confirm(l.client), TALVEX_OK);
    EXPECT_EQ(l.StageUpdate(kNew), TALVEX_OK) << l.LastSentence() << l.log;
    EXPECT_FALSE(MayExist(l.At(work + L"\\previous\\rollback.journal")));
    EXPECT_EQ(ReadTestFile(l.scratch / L"others\\precious"), "mine");
    for (const std::wstring& file : {state, marker, marker + L".new", cache + L"\\manifest.txt"}) {
      EXPECT_FALSE(IsRealDirectory(l.At(file)));
    }
    EXPECT_NE(ProbePath(l.At(cache)), PathKind::kFile);
    EXPECT_FALSE(MayExist(l.At(stage + L"\\files\\denied")));
  }
}

// Without the prefix, Windows takes the name "previous." for "previous". And a work directory that denies is
// moved aside only without a journal.
TEST(ClientLibrary, KeepsTheOnlyCopiesUntilTheReleaseIsConfirmed) {
  Library l;
  const std::wstring work = l.At(L".talvex-update\\");
  const std::wstring journal = work + L"previous\\rollback.journal";
  const std::wstring twin = L"\\\\?\\" + work + L"previous.";
  WriteTestFile(journal, "broken");
  MakeTestDirectory(twin);
  EXPECT_EQ(l.Start(), TALVEX_START_GAME);
  EXPECT_EQ(l.StageUpdate(kNew), TALVEX_OK) << l.LastSentence();
  EXPECT_FALSE(MayExist(twin));
  EXPECT_EQ(talvex_install(l.client, nullptr), TALVEX_E_UNSETTLED);

  RemoveTestTree(work + Utf8ToWide(HexDigestOf(kNew.ManifestText())));
  WriteTestFile(work + L"previous\\denied", "");
  g_create_file = ImportedFunction<decltype(CreateFileW)>("CreateFileW");
  g_create_directory = ImportedFunction<decltype(CreateDirectoryW)>("CreateDirectoryW");
  const ImportPatch add_patch("CreateFileW", &DenyAdding);
  const ImportPatch make_patch("CreateDirectoryW", &DenyMaking);
  talvex_file file = {};
  file.struct_size = sizeof(file);
  EXPECT_EQ(l.Check(kNew), TALVEX_OK);
  EXPECT_EQ(talvex_next_file(l.client, &file), TALVEX_E_SYSTEM);
  EXPECT_EQ(ReadTestFile(journal), "broken");
  DeleteFileW(journal.c_str());
  EXPECT_EQ(l.StageUpdate(kNew), TALVEX_OK) << l.LastSentence();
  EXPECT_FALSE(MayExist(work + L"previous"));
}

DWORD WINAPI NameShare(HANDLE, wchar_t* path, DWORD, DWORD) {
  constexpr std::wstring_view kShare = L"\\\\?\\UNC\\server\\share\\client";
  *std::copy(kShare.begin(), kShare.end(), path) = L'\0';
  return static_cast<DWORD>(kShare.size());
}

// (Not shown here: a directory that is named by its volume. Wine opens none.)
TEST(ClientLibrary, LooksAtWhereItsDirectoryReallyIs) {
  Library l;
  const ImportPatch patch("GetFinalPathNameByHandleW", &NameShare);
  EXPECT_EQ(l.Start(), TALVEX_E_DIRECTORY);
}

TEST(ClientLibrary, SaysHowMuchRoomIsMissing) {
  Library l;
  ASSERT_EQ(l.Start(), TALVEX_START_GAME);
  ASSERT_EQ(l.Check(kNew), TALVEX_OK);
  const ImportPatch patch("GetDiskFreeSpaceExW", &ReportFull);
  talvex_file file = {};
  file.struct_size = sizeof(file);
  EXPECT_EQ(talvex_next_file(l.client, &file), TALVEX_E_SPACE);
  EXPECT_EQ(l.LastSentence(), "There is not enough room on the disk: 17 MiB more are needed.");
}

TEST(ClientLibrary, TellsWhyTheLockFileCannotBeOpened) {
  const struct {
    DWORD code;
    std::int32_t result;
  } cases[] = {{ERROR_WRITE_PROTECT, TALVEX_E_NOT_WRITABLE},
               {ERROR_SHARING_VIOLATION, TALVEX_E_ALREADY_RUNNING},
               {ERROR_ACCESS_DENIED, TALVEX_E_NOT_WRITABLE},
               {ERROR_DISK_FULL, TALVEX_E_SYSTEM}};
  g_create_file = ImportedFunction<decltype(CreateFileW)>("CreateFileW");
  for (const auto& c : cases) {
    Library l;
    const ImportPatch patch("CreateFileW", &FailToLock);
    g_lock_error = c.code;
    EXPECT_EQ(l.Start(), c.result);
  }
  // A file that is there and denies everything is moved out of the way.
  Library l;
  WriteTestFile(l.At(L".talvex-update~lock"), "denies");
  const ImportPatch open_patch("CreateFileW", &FailToLockWhatExists);
  const ImportPatch attributes_patch("SetFileAttributesW", Failing(&SetFileAttributesW));
  EXPECT_EQ(l.Start(), TALVEX_START_GAME);
}

// The copy of the helper, in the second place where the first has no access lists.
TEST(ClientLibrary, PlacesTheHelperWhereNobodyCanExchangeIt) {
  Library l;
  const Manifest release = kOld.Parsed();
  const std::wstring helper = l.At(L"TalvexUpdateHelper.exe");
  std::wstring directories[2];
  for (std::wstring& directory : directories) {
    client::PlacedHelper placed;
    client::Failure failure;
    const bool is_second = &directory != directories;
    g_volume_information =
        ImportedFunction<decltype(GetVolumeInformationByHandleW)>("GetVolumeInformationByHandleW");
    g_volumes_without_lists = is_second ? 1 : 0;
    const ImportPatch patch("GetVolumeInformationByHandleW", &HideAccessLists);
    ASSERT_EQ(client::PlaceHelper(l.root, helper, release, placed, failure), TALVEX_OK)
        << WideToUtf8(failure.error.Message());
    EXPECT_FALSE(OwnedHandle(CreateFileW(placed.program.c_str(), GENERIC_WRITE,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                         OPEN_EXISTING, 0, nullptr))
                     .IsValid());
    EXPECT_FALSE(DeleteFileW(placed.program.c_str()));
    directory = placed.directory.substr(0, placed.directory.rfind(L'\\'));
    placed.proof.Reset();
    client::RemoveOldHelpers(l.root);
    EXPECT_FALSE(MayExist(placed.directory));
  }
  EXPECT_NE(directories[0], directories[1]);
  // What is not the helper is not even copied.
  WriteTestFile(helper, "no helper");
  client::PlacedHelper placed;
  client::Failure failure;
  EXPECT_EQ(client::PlaceHelper(l.root, helper, release, placed, failure), TALVEX_E_SYSTEM);
  EXPECT_EQ(placed.program, L"");
}

int g_opened = 0;
HANDLE WINAPI CountOpen(const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                        DWORD disposition, DWORD flags, HANDLE model) {
  ++g_opened;
  return g_create_file(path, access, share, security, disposition, flags, model);
}

TEST(ClientLibrary, OpensOnlyItsDirectoryAndItsLockWhenThereIsNothingToSettle) {
  Library l;
  g_create_file = ImportedFunction<decltype(CreateFileW)>("CreateFileW");
  const ImportPatch patch("CreateFileW", &CountOpen);
  g_opened = 0;
  EXPECT_EQ(l.Start(), TALVEX_START_GAME);
  EXPECT_EQ(talvex_confirm(l.client), TALVEX_OK);
  EXPECT_EQ(g_opened, 2);
  talvex_close(l.client);
  EXPECT_EQ(g_opened, 2);
  EXPECT_FALSE(MayExist(l.At(L".talvex-update~lock")));
}

}  // namespace
}  // namespace talvex::test
