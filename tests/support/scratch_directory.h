#pragma once

// A folder of its own for every test, and what tests do with files in it.

#include <windows.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace talvex::test {

// Relative path -> contents, for every file below a folder; folders have a closing "\" and no contents.
using Tree = std::map<std::wstring, std::string>;

void WriteTestFile(const std::wstring& path, std::string_view contents);  // makes parent folders
[[nodiscard]] std::string ReadTestFile(const std::wstring& path);         // "" when there is none
[[nodiscard]] Tree ReadTree(const std::wstring& directory);
// The paths at which two trees differ, a line each; "" when they are equal.
[[nodiscard]] std::string TreeDifference(const Tree& found, const Tree& expected);
void MakeTestDirectory(const std::wstring& path);
void RemoveTestTree(const std::wstring& directory);  // links in it are removed, never followed

// Makes `link` a reparse point that leads to the folder `target`: a junction on Windows. Wine cannot make
// one, but shows a Unix symbolic link to a folder as a folder with the reparse-point attribute.
void MakeJunction(const std::wstring& link, const std::wstring& target);

// Makes a file of `size` bytes, all zero, without writing them.
void MakeSparseFile(const std::wstring& path, std::uint64_t size);

// A new, empty folder in the temporary folder, removed at the end with everything in it.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  ~ScratchDirectory() { RemoveTestTree(path_); }

  [[nodiscard]] const std::wstring& Path() const { return path_; }
  [[nodiscard]] std::wstring operator/(std::wstring_view name) const {
    return path_ + L"\\" + std::wstring(name);
  }

 private:
  std::wstring path_;
};

}  // namespace talvex::test
