#pragma once

// A program file (PE) as Windows' loader reads it, as far as a release engineer has to know it. Parsed from
// the bytes that were hashed, with every offset checked, because the file may be anybody's.

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace talvex {

class ProgramImage {
 public:
  // Reads the headers of the program in `bytes`, which must outlive the image. False when Windows could not
  // start it: not a PE program, a DLL, or cut short within its sections.
  [[nodiscard]] bool Parse(std::span<const std::byte> bytes);

  [[nodiscard]] bool IsX86() const { return is_x86_; }

  // The contents of the resource with this type and id, in whatever language comes first; empty if there is
  // none, or if it does not lie within the file.
  [[nodiscard]] std::span<const std::byte> Resource(std::uint16_t type, std::uint16_t id) const;

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
  bool is_x86_ = false;
};

}  // namespace talvex
