#include "publisher/program_image.h"

#include <windows.h>

#include <cstring>

#include "core/ascii_case.h"
#include "core/text_encoding.h"
#include "formats/text_lines.h"

namespace talvex {
namespace {

constexpr std::size_t kMaxLanguages = 256;  // of one resource: bounds what a hostile file costs

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

// Where entry `index` of the directory at `offset` of a resource tree leads to, and under which id. Offsets
// are relative to the beginning of the tree, and lead to the next directory or, after the last, to the data
// entry.
bool ReadEntry(std::span<const std::byte> tree, std::uint32_t offset, std::size_t index, std::uint32_t& id,
               std::uint32_t& target) {
  IMAGE_RESOURCE_DIRECTORY directory{};
  IMAGE_RESOURCE_DIRECTORY_ENTRY entry{};
  if (!ReadAt(tree, offset, directory) ||
      index >= std::size_t{directory.NumberOfNamedEntries} + directory.NumberOfIdEntries ||
      !ReadAt(tree, offset + sizeof(directory) + index * sizeof(entry), entry)) {
    return false;
  }
  id = entry.Name;
  target = entry.OffsetToData & ~DWORD{IMAGE_RESOURCE_DATA_IS_DIRECTORY};
  return true;
}

// Replaces `offset` by where the first entry with `id` leads to, which is the one that Windows finds.
bool FollowId(std::span<const std::byte> tree, std::uint16_t id, std::uint32_t& offset) {
  std::uint32_t found_id = 0;
  std::uint32_t target = 0;
  for (std::size_t i = 0; ReadEntry(tree, offset, i, found_id, target); ++i) {
    if (found_id == id) {
      offset = target;
      return true;
    }
  }
  return false;
}

}  // namespace

bool ProgramImage::Parse(std::span<const std::byte> bytes, ImageKind kind) {
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
      ((file.Characteristics & IMAGE_FILE_DLL) != 0) != (kind == ImageKind::kLibrary)) {
    return false;
  }
  const bool is_wide = magic == IMAGE_NT_OPTIONAL_HDR64_MAGIC;
  if (!is_wide && magic != IMAGE_NT_OPTIONAL_HDR32_MAGIC) {
    return false;
  }
  const bool is_for_players =
      is_wide ? file.Machine == IMAGE_FILE_MACHINE_AMD64 || file.Machine == IMAGE_FILE_MACHINE_ARM64
              : file.Machine == IMAGE_FILE_MACHINE_I386;
  if (!is_for_players) {
    return false;
  }
  machine_ = file.Machine;
  // Without resources or imports, a program may leave out the end of the header.
  const auto address_of = [&](std::size_t index) {
    const std::size_t entry = (is_wide ? offsetof(IMAGE_OPTIONAL_HEADER64, DataDirectory)
                                       : offsetof(IMAGE_OPTIONAL_HEADER32, DataDirectory)) +
                              index * sizeof(IMAGE_DATA_DIRECTORY);
    IMAGE_DATA_DIRECTORY directory{};
    return file.SizeOfOptionalHeader >= entry + sizeof(directory) &&
                   ReadAt(bytes, optional_header + entry, directory)
               ? directory.VirtualAddress
               : 0;
  };
  resources_ = address_of(IMAGE_DIRECTORY_ENTRY_RESOURCE);
  imports_ = address_of(IMAGE_DIRECTORY_ENTRY_IMPORT);
  is_managed_ = address_of(IMAGE_DIRECTORY_ENTRY_COM_DESCRIPTOR) != 0;
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

bool ProgramImage::IsX86() const {
  return machine_ == IMAGE_FILE_MACHINE_I386;
}

std::vector<std::span<const std::byte>> ProgramImage::Resources(std::uint16_t type, std::uint16_t id) const {
  std::vector<std::span<const std::byte>> found;
  const auto tree = resources_ != 0 ? BytesAt(resources_) : std::span<const std::byte>();
  std::uint32_t offset = 0;
  if (!FollowId(tree, type, offset) || !FollowId(tree, id, offset)) {
    return found;
  }
  std::uint32_t language = 0;
  std::uint32_t target = 0;
  for (std::size_t i = 0; i < kMaxLanguages && ReadEntry(tree, offset, i, language, target); ++i) {
    IMAGE_RESOURCE_DATA_ENTRY data{};
    found.push_back(ReadAt(tree, target, data) ? Part(BytesAt(data.OffsetToData), 0, data.Size)
                                               : std::span<const std::byte>());
  }
  return found;
}

bool ProgramImage::Imports(std::wstring_view library) const {
  const auto table = imports_ != 0 ? BytesAt(imports_) : std::span<const std::byte>();
  IMAGE_IMPORT_DESCRIPTOR descriptor{};
  for (std::size_t at = 0; ReadAt(table, at, descriptor) && descriptor.Name != 0; at += sizeof(descriptor)) {
    const std::string_view name = AsText(BytesAt(descriptor.Name)).substr(0, library.size() + 1);
    if (name.ends_with('\0') && EqualIgnoringAsciiCase(Utf8ToWide(name.substr(0, library.size())), library)) {
      return true;
    }
  }
  return false;
}

}  // namespace talvex
