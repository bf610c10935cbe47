#include "tests/support/scratch_directory.h"

#include <gtest/gtest.h>

#include <winioctl.h>

#include <cstdint>
#include <fstream>
#include <iterator>

#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "storage/client_root.h"

namespace talvex::test {
namespace {

template <typename Visit>
void ForEachEntry(const std::wstring& directory, Visit visit) {
  WIN32_FIND_DATAW entry{};
  const HANDLE search = FindFirstFileW(JoinPath(directory, L"*").c_str(), &entry);
  if (search == INVALID_HANDLE_VALUE) {
    return;
  }
  do {
    const std::wstring name = entry.cFileName;
    if (name != L"." && name != L"..") {
      visit(name, entry.dwFileAttributes);
    }
  } while (FindNextFileW(search, &entry));
  FindClose(search);
}

void AddToTree(const std::wstring& directory, const std::wstring& prefix, Tree& tree) {
  ForEachEntry(directory, [&](const std::wstring& name, DWORD attributes) {
    const std::wstring path = JoinPath(directory, name);
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      tree[prefix + name] = ReadTestFile(path);
      return;
    }
    tree[prefix + name + L"\\"] = "";
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
      AddToTree(path, prefix + name + L"\\", tree);
    }
  });
}

}  // namespace

ScratchDirectory::ScratchDirectory() {
  static unsigned count = 0;
  wchar_t temporary[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, temporary);
  GetLongPathNameW(temporary, temporary,
                   MAX_PATH);  // of two spellings the one in which Windows tells of programs
  path_ = JoinPath(
      temporary, L"talvex-test-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count));
  MakeTestDirectory(path_);
}

ScratchDirectory::~ScratchDirectory() {
  RemoveTestTree(path_);
}

std::wstring ScratchDirectory::operator/(std::wstring_view name) const {
  return JoinPath(path_, name);
}

void MakeTestDirectory(const std::wstring& path) {
  if (!CreateDirectoryW(path.c_str(), nullptr) && GetLastError() == ERROR_PATH_NOT_FOUND) {
    MakeTestDirectory(std::wstring(ParentOfRelativePath(path)));
    CreateDirectoryW(path.c_str(), nullptr);
  }
}

void WriteTestFile(const std::wstring& path, std::string_view contents) {
  MakeTestDirectory(std::wstring(ParentOfRelativePath(path)));
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
  AddToTree(directory, L"", tree);
  return tree;
}

std::string TreeDifference(const Tree& found, const Tree& expected) {
  std::string difference;
  for (const auto& [path, contents] : expected) {
    if (const auto match = found.find(path); match == found.end() || match->second != contents) {
      difference += (match == found.end() ? "missing: " : "changed: ") + WideToUtf8(path) + "\n";
    }
  }
  for (const auto& [path, contents] : found) {
    if (!expected.contains(path)) {
      difference += "unexpected: " + WideToUtf8(path) + "\n";
    }
  }
  return difference;
}

void RemoveTestTree(const std::wstring& directory) {
  ForEachEntry(directory, [&](const std::wstring& name, DWORD attributes) {
    const std::wstring path = JoinPath(directory, name);
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
      RemoveDirectoryW(path.c_str());
    } else if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
      RemoveTestTree(path);
    } else {
      SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
      DeleteFileW(path.c_str());
    }
  });
  RemoveDirectoryW(directory.c_str());
}

void MakeJunction(const std::wstring& link, const std::wstring& target) {
  using ToUnixPath = char*(__cdecl*)(const wchar_t*);
  const auto to_unix_path = reinterpret_cast<ToUnixPath>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32"), "wine_get_unix_file_name")));
  std::wstring command = L"cmd.exe /c mklink /J \"" + link + L"\" \"" + target + L"\"";
  if (to_unix_path != nullptr) {
    const auto widen = [](std::string text) { return std::wstring(text.begin(), text.end()); };
    const std::wstring parent(ParentOfRelativePath(link));
    command = L"\\\\?\\unix\\bin\\ln -s " + widen(to_unix_path(target.c_str())) + L" " +
              widen(to_unix_path(parent.c_str())) + link.substr(parent.size()).replace(0, 1, L"/");
  }
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION started{};
  ASSERT_TRUE(CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                             nullptr, &startup, &started));
  CloseHandle(started.hProcess);
  CloseHandle(started.hThread);
  // Wine gives no handle to wait for the Unix program with.
  for (int i = 0; i < 200 && !MayExist(link); ++i) {
    Sleep(25);
  }
  ASSERT_TRUE(MayExist(link) && !IsRealDirectory(link));
}

void MakeSparseFile(const std::wstring& path, std::uint64_t size) {
  const OwnedHandle file(
      CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD returned = 0;
  // Wine has no such control code and makes sparse files anyway.
  DeviceIoControl(file.Get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
  LARGE_INTEGER end{};
  end.QuadPart = static_cast<LONGLONG>(size);
  ASSERT_TRUE(SetFilePointerEx(file.Get(), end, nullptr, FILE_BEGIN) && SetEndOfFile(file.Get()));
}

}  // namespace talvex::test
