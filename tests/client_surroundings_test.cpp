// The update library inside this process, in a directory in which others have been: nothing that they have
// put there keeps the game from starting or an update from being staged, and nothing of theirs is touched.

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "client/helper_place.h"
#include "client/talvex_update.h"
#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "tests/support/import_patch.h"
#include "tests/support/library_calls.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {
namespace {

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
TEST(ClientSurroundings, StartsTheGameAndStagesWhateverOthersHavePutThere) {
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
TEST(ClientSurroundings, KeepsTheOnlyCopiesUntilTheReleaseIsConfirmed) {
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
TEST(ClientSurroundings, LooksAtWhereItsDirectoryReallyIs) {
  Library l;
  const ImportPatch patch("GetFinalPathNameByHandleW", &NameShare);
  EXPECT_EQ(l.Start(), TALVEX_E_DIRECTORY);
}

TEST(ClientSurroundings, SaysHowMuchRoomIsMissing) {
  Library l;
  ASSERT_EQ(l.Start(), TALVEX_START_GAME);
  ASSERT_EQ(l.Check(kNew), TALVEX_OK);
  const ImportPatch patch("GetDiskFreeSpaceExW", &ReportFull);
  talvex_file file = {};
  file.struct_size = sizeof(file);
  EXPECT_EQ(talvex_next_file(l.client, &file), TALVEX_E_SPACE);
  EXPECT_EQ(l.LastSentence(), "There is not enough room on the disk: 17 MiB more are needed.");
}

TEST(ClientSurroundings, TellsWhyTheLockFileCannotBeOpened) {
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
TEST(ClientSurroundings, PlacesTheHelperWhereNobodyCanExchangeIt) {
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

TEST(ClientSurroundings, OpensOnlyItsDirectoryAndItsLockWhenThereIsNothingToSettle) {
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
