#include "publisher/program_image.h"

#include <windows.h>

#include <cstring>
#include <optional>

namespace talvex {
namespace {

// Copies a structure out of the file, where it may be misaligned. False when it does not lie within `bytes`.
template <typename Structure>
bool ReadAt(std::span<const std::byte> bytes, std::size_t offset, Structure& structure) {
  if (offset > bytes.size() || bytes.size() - offset < sizeof(Structure)) {
    return false;
  }
  std::memcpy(&structure, bytes.data() + offset, sizeof(Structure));
  return true;
}

// The part of `bytes` from `offset` with `size` bytes, or none when it does not lie within.
std::span<const std::byte> Part(std::span<const std::byte> bytes, std::size_t offset, std::size_t size) {
  return offset > bytes.size() || bytes.size() - offset < size ? std::span<const std::byte>()
                                                               : bytes.subspan(offset, size);
}

// One entry of the directory at `offset` of a resource tree: the one with `id`, or the first one. Offsets are
// relative to the beginning of the tree, and lead to the next directory or, after the last, to the data
// entry.
bool FindEntry(std::span<const std::byte> tree, std::uint32_t offset, std::optional<std::uint16_t> id,
               std::uint32_t& found) {
  IMAGE_RESOURCE_DIRECTORY directory{};
  if (!ReadAt(tree, offset, directory)) {
    return false;
  }
  const std::size_t count = std::size_t{directory.NumberOfNamedEntries} + directory.NumberOfIdEntries;
  IMAGE_RESOURCE_DIRECTORY_ENTRY entry{};
  for (std::size_t i = 0; i < count; ++i) {
    if (!ReadAt(tree, offset + sizeof(directory) + i * sizeof(entry), entry)) {
      return false;
    }
    if (!id || entry.Name == *id) {
      found = entry.OffsetToData & ~DWORD{IMAGE_RESOURCE_DATA_IS_DIRECTORY};
      return true;
    }
  }
  return false;
}

}  // namespace

bool ProgramImage::Parse(std::span<const std::byte> bytes) {
  *this = {};
  bytes_ = bytes;
  IMAGE_DOS_HEADER dos{};
  DWORD signature = 0;
  IMAGE_FILE_HEADER file{};
  WORD magic = 0;
  if (!ReadAt(bytes, 0, dos) || dos.e_magic != IMAGE_DOS_SIGNATURE || dos.e_lfanew < 0) {
    return false;
  }
  const auto header = static_cast<std::size_t>(dos.e_lfanew);
  const std::size_t optional_header = header + sizeof(signature) + sizeof(file);
  if (!ReadAt(bytes, header, signature) || signature != IMAGE_NT_SIGNATURE ||
      !ReadAt(bytes, header + sizeof(signature), file) || !ReadAt(bytes, optional_header, magic) ||
      (file.Characteristics & IMAGE_FILE_EXECUTABLE_IMAGE) == 0 ||
      (file.Characteristics & IMAGE_FILE_DLL) != 0) {
    return false;
  }
  const bool is_wide = magic == IMAGE_NT_OPTIONAL_HDR64_MAGIC;
  if (!is_wide && magic != IMAGE_NT_OPTIONAL_HDR32_MAGIC) {
    return false;
  }
  is_x86_ = !is_wide && file.Machine == IMAGE_FILE_MACHINE_I386;
  // A program without resources may leave out the end of the header.
  const std::size_t resources = (is_wide ? offsetof(IMAGE_OPTIONAL_HEADER64, DataDirectory)
                                         : offsetof(IMAGE_OPTIONAL_HEADER32, DataDirectory)) +
                                IMAGE_DIRECTORY_ENTRY_RESOURCE * sizeof(IMAGE_DATA_DIRECTORY);
  IMAGE_DATA_DIRECTORY directory{};
  if (file.SizeOfOptionalHeader >= resources + sizeof(directory) &&
      ReadAt(bytes, optional_header + resources, directory)) {
    resources_ = directory.VirtualAddress;
  }
  return ReadSections(optional_header + file.SizeOfOptionalHeader, file.NumberOfSections);
}

bool ProgramImage::ReadSections(std::size_t table, std::size_t count) {
  IMAGE_SECTION_HEADER header{};
  for (std::size_t i = 0; i < count; ++i) {
    if (!ReadAt(bytes_, table + i * sizeof(header), header)) {
      return false;
    }
    if (header.SizeOfRawData == 0) {
      continue;  // memory only
    }
    const auto bytes = Part(bytes_, header.PointerToRawData, header.SizeOfRawData);
    if (bytes.empty()) {
      return false;
    }
    sections_.push_back({header.VirtualAddress, bytes});
  }
  return !sections_.empty();
}

// From `address` to the end of its section.
std::span<const std::byte> ProgramImage::BytesAt(std::uint32_t address) const {
  for (const Section& section : sections_) {
    if (address >= section.address && address - section.address < section.bytes.size()) {
      return section.bytes.subspan(address - section.address);
    }
  }
  return {};
}

std::span<const std::byte> ProgramImage::Resource(std::uint16_t type, std::uint16_t id) const {
  if (resources_ == 0) {
    return {};
  }
  const std::span<const std::byte> tree = BytesAt(resources_);
  std::uint32_t offset = 0;
  IMAGE_RESOURCE_DATA_ENTRY data{};
  if (!FindEntry(tree, 0, type, offset) || !FindEntry(tree, offset, id, offset) ||
      !FindEntry(tree, offset, std::nullopt, offset) || !ReadAt(tree, offset, data)) {
    return {};
  }
  return Part(BytesAt(data.OffsetToData), 0, data.Size);
}

}  // namespace talvex
