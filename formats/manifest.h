#pragma once

// The manifest: the signed description of one client release.
//
//   TALVEX-UPDATE-V1
//   release   TAB  identifier
//   sequence  TAB  decimal, not 0
//   file      TAB  size  TAB  SHA-256  TAB  relative path        1 to 1,024 such lines
//
// All that the helper knows about client files comes from here.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/sha256_digest.h"
#include "core/update_error.h"

namespace talvex {

inline constexpr std::uint32_t kManifestSizeLimit = 4'194'304;  // bytes
// Generous: a valid signature file is one RSA-3072 block.
inline constexpr std::uint32_t kSignatureSizeLimit = 1'024;  // bytes
inline constexpr std::size_t kManifestFileLimit = 1'024;
inline constexpr std::uint64_t kManagedFileSizeLimit = 8'589'934'592;  // bytes, 2^33
inline constexpr std::uint64_t kReleaseSizeLimit = 17'179'869'184;     // bytes, 2^34

struct ManifestEntry {
  std::uint64_t size = 0;  // bytes; from 1 in a parsed manifest
  Sha256Digest digest;
  std::string path;              // as written, with "/"
  std::wstring normalised_path;  // with "\"
};

// No two entries of a parsed manifest share a path, case ignored.
struct Manifest {
  std::string release;
  std::uint64_t sequence = 0;
  Sha256Digest digest;  // of the complete file
  std::vector<ManifestEntry> entries;
};

// Parses the bytes of a manifest file and computes their digest. The helper calls it only with bytes whose
// signature has been verified (VerifySignedManifest does both). A failure may leave fields parsed so far in
// `manifest`; it must not be used. Messages, in the order of the checks:
//   "The update manifest must be UTF-8 text with LF line endings."
//   "The update manifest is incomplete."
//   "The update manifest header is invalid."        also when there is no file line
//   "The update manifest release is invalid."
//   "The update manifest sequence is invalid."
//   "The update manifest contains an invalid file row."
//   "The update manifest contains invalid file data."
//   those of ValidateRelativePath
//   "The update manifest contains a duplicate path."
//   "The update manifest targets updater state."
//   "The update manifest exceeds the release size limit."
//   "The update manifest contains too many files."
//   "The update manifest contains no files."
//   that of Sha256OfBuffer
[[nodiscard]] bool ParseManifest(std::span<const std::byte> bytes, Manifest& manifest, UpdateError& error);

// The file text of `manifest`, whose digest and normalised paths are ignored. Does not validate; the parser
// does.
[[nodiscard]] std::string FormatManifest(const Manifest& manifest);

// 1 to 64 of A-Z a-z 0-9 . _ -, the first a letter or digit, the last anything but a dot.
[[nodiscard]] bool IsReleaseIdentifier(std::string_view text) noexcept;

// The entry whose normalised path equals `normalised_path`, or null. The first compares exactly, case
// included, as the rollback requires; the second ignores the case of A to Z, as the plan does.
[[nodiscard]] const ManifestEntry* FindManifestEntry(const Manifest& manifest,
                                                     std::wstring_view normalised_path) noexcept;
[[nodiscard]] const ManifestEntry* FindManifestEntryIgnoringCase(const Manifest& manifest,
                                                                 std::wstring_view normalised_path) noexcept;

// The sum of the files' sizes, in bytes.
[[nodiscard]] std::uint64_t TotalSize(const Manifest& manifest) noexcept;

}  // namespace talvex
