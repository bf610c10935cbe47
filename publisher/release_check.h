#pragma once

// What makes a well-formed release one that players should not get. The helper's parser has accepted its
// manifest already; these are mistakes that it cannot know.

#include <cstdint>
#include <set>
#include <string>

#include "core/whole_file.h"
#include "formats/manifest.h"
#include "publisher/findings.h"
#include "publisher/program_check.h"

namespace talvex {

// Programs up to this size are read into memory to be checked; of a larger one only the digest is verified.
inline constexpr std::uint32_t kMaxCheckedProgramSize = 268'435'456;  // bytes

// The contents of the programs, read while they were hashed. Empty: missing, or too large.
struct ReleasePrograms {
  ByteBuffer client;
  ByteBuffer helper;
  ByteBuffer library;  // the update library's DLL, if the client has it
};

// The buffer for the contents of `entry`; null unless it is one of the programs and small enough.
[[nodiscard]] ByteBuffer* BufferFor(const ManifestEntry& entry, ReleasePrograms& programs);

// VerifyManagedFile for a program, whose bytes are kept: what is checked later is what was hashed here. A
// failure leaves `bytes` empty. Messages: those of ReadWholeFile and Sha256OfBuffer, and `mismatch`.
[[nodiscard]] bool ReadVerifiedProgram(const std::wstring& path, const ManifestEntry& entry,
                                       const wchar_t* mismatch, ByteBuffer& bytes, UpdateError& error);

// Checks what the manifest alone tells: the two programs are there, spelled right, with no manifest file
// beside them; the sequence leaves room for later releases; no path is that of a file and of a directory;
// there is room for the client directory's path.
void CheckManifest(const Manifest& manifest, Findings& findings);

// Checks the two programs (program_check.h); `manifest` tells a missing one from one that is too large.
void CheckPrograms(const Manifest& manifest, const ReleasePrograms& programs, const ReleaseKeys& keys,
                   const ProgramAllowances& allowances, Findings& findings);

// Every directory that holds a file of `manifest`, at any depth, as Windows compares them: folded, with "\".
[[nodiscard]] std::set<std::wstring> DirectoriesOf(const Manifest& manifest);

// "release=2.1 sequence=57 files=12", for the result of a command.
[[nodiscard]] std::wstring Describe(const Manifest& manifest);
// The same as keys of an object, with the digest and the total size.
void WriteDescription(const Manifest& manifest, JsonWriter& json);

}  // namespace talvex
