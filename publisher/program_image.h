#pragma once

// A program file (PE) as Windows' loader reads it, as far as a release engineer has to know it. Parsed from
// the bytes that were hashed, with every offset checked, because the file may be anybody's.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace talvex {

enum class ImageKind { kProgram, kLibrary };

class ProgramImage {
 public:
  // Reads the headers of the program or DLL in `bytes`, which must outlive the image. False when Windows
  // could not load it as one: no PE file of this kind, for a processor that no player has, or cut short
  // within its sections.
  [[nodiscard]] bool Parse(std::span<const std::byte> bytes, ImageKind kind = ImageKind::kProgram);

  [[nodiscard]] bool IsX86() const;
  // IMAGE_FILE_MACHINE_*: what processor it is for.
  [[nodiscard]] std::uint16_t Machine() const { return machine_; }

  // Whether the program is .NET's, which may run it as one of 64 bits although it is marked as x86.
  [[nodiscard]] bool IsManaged() const { return is_managed_; }

  // The contents of the resource with this type and id, once for each language; empty where they do not lie
  // within the file.
  [[nodiscard]] std::vector<std::span<const std::byte>> Resources(std::uint16_t type, std::uint16_t id) const;

  // Whether Windows looks for the DLL `library` before it starts the program. The case of A to Z is ignored.
  [[nodiscard]] bool Imports(std::wstring_view library) const;

 private:
  // A section: where it is in memory, relative to the program's beginning, and its bytes in the file.
  struct Section {
    std::uint32_t address = 0;
    std::span<const std::byte> bytes;
  };

  [[nodiscard]] bool ReadSections(std::size_t table, std::size_t count);
  [[nodiscard]] std::span<const std::byte> BytesAt(std::uint32_t address) const;

  std::span<const std::byte> bytes_;
  std::vector<Section> sections_;
  std::uint32_t resources_ = 0;  // address of the resource tree; 0: none
  std::uint32_t imports_ = 0;    // address of the import table; 0: none
  std::uint16_t machine_ = 0;
  bool is_managed_ = false;
};

}  // namespace talvex
