#include "tests/support/scratch_directory.h"

#include <gtest/gtest.h>

#include <winioctl.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "core/text_encoding.h"

namespace talvex::test {
namespace {

namespace fs = std::filesystem;

// Everything below a folder, a folder before what it holds. Links are listed, not followed.
std::vector<fs::path> PathsBelow(const std::wstring& directory) {
  std::vector<fs::path> paths;
  std::error_code missing;
  for (fs::recursive_directory_iterator entry(directory, missing), end; entry != end; ++entry) {
    paths.push_back(entry->path());
    if ((GetFileAttributesW(paths.back().c_str()) & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
      entry.disable_recursion_pending();
    }
  }
  return paths;
}

}  // namespace

ScratchDirectory::ScratchDirectory() {
  static std::atomic<unsigned> count = 0;
  const std::string name = "talvex-test-" + std::to_string(GetCurrentProcessId()) + "-";
  fs::path path;
  do {
    path = fs::temp_directory_path() / (name + std::to_string(++count));
  } while (!fs::create_directory(path));  // an earlier process with this number may have left one
  path_ = path.wstring();
}

void MakeTestDirectory(const std::wstring& path) {
  std::error_code unreported;
  fs::create_directories(path, unreported);
}

void WriteTestFile(const std::wstring& path, std::string_view contents) {
  MakeTestDirectory(fs::path(path).parent_path().wstring());
  std::ofstream file(path.c_str(), std::ios::binary | std::ios::trunc);
  file.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  ASSERT_TRUE(file.flush().good());
}

std::string ReadTestFile(const std::wstring& path) {
  std::ifstream file(path.c_str(), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

Tree ReadTree(const std::wstring& directory) {
  Tree tree;
  for (const fs::path& path : PathsBelow(directory)) {
    const bool is_folder = fs::is_directory(path);
    tree[path.wstring().substr(directory.size() + 1) + (is_folder ? L"\\" : L"")] =
        is_folder ? std::string() : ReadTestFile(path.wstring());
  }
  return tree;
}

std::string TreeDifference(const Tree& found, const Tree& expected) {
  Tree different;
  std::ranges::set_symmetric_difference(found, expected, std::inserter(different, different.end()));
  std::string lines;
  for (const auto& [path, contents] : different) {
    lines += !found.contains(path) ? "missing: " : expected.contains(path) ? "changed: " : "unexpected: ";
    lines += WideToUtf8(path) + "\n";
  }
  return lines;
}

void RemoveTestTree(const std::wstring& directory) {
  std::error_code unreported;
  std::vector<fs::path> paths = PathsBelow(directory);
  std::ranges::reverse(paths);
  for (const fs::path& path : paths) {
    const std::wstring exact = L"\\\\?\\" + path.wstring();  // a name that ends in a dot loses it otherwise
    SetFileAttributesW(exact.c_str(), FILE_ATTRIBUTE_NORMAL);
    fs::remove(exact, unreported);
  }
  fs::remove(directory, unreported);
}

void MakeJunction(const std::wstring& link, const std::wstring& target) {
  const fs::path folder = fs::path(link).parent_path();
  std::wstring command = L"cmd.exe /c mklink /J \"" + link + L"\" \"" + target + L"\"";
  if (GetProcAddress(GetModuleHandleW(L"ntdll"), "wine_get_version") != nullptr) {
    const fs::path way = fs::path(target).lexically_relative(folder);
    command = L"\\\\?\\unix\\bin\\ln -s " + way.generic_wstring() +
              link.substr(link.rfind(L'\\')).replace(0, 1, L" ");
  }
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION started{};
  ASSERT_TRUE(CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                             folder.c_str(), &startup, &started));
  const OwnedHandle process(started.hProcess);
  const OwnedHandle thread(started.hThread);
  // Wine gives no handle to wait for the Unix program with.
  for (int i = 0; i < 200 && !MayExist(link); ++i) {
    Sleep(25);
  }
  ASSERT_EQ(ProbePath(link), PathKind::kReparsePoint);
}

void MakeSparseFile(const std::wstring& path, std::uint64_t size) {
  const OwnedHandle file(
      CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD returned = 0;
  // Wine has no such control code and makes sparse files anyway.
  DeviceIoControl(file.Get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
  const LARGE_INTEGER end{.QuadPart = static_cast<LONGLONG>(size)};
  ASSERT_TRUE(SetFilePointerEx(file.Get(), end, nullptr, FILE_BEGIN) && SetEndOfFile(file.Get()));
}

}  // namespace talvex::test
