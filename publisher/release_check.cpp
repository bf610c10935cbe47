#include "publisher/release_check.h"

#include <cstdint>
#include <limits>

#include "core/ascii_case.h"
#include "core/sha256.h"
#include "core/text_encoding.h"
#include "publisher/path_room.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

// Half of all numbers. Sequences count up from 1, or are dates; neither comes near.
constexpr std::uint64_t kMaxRoomySequence = std::numeric_limits<std::uint64_t>::max() / 2;
// A folder of the user's, such as C:\Users\<name>\AppData\Local\Programs\Talvex, takes up to so many
// characters.
constexpr std::size_t kMinRoomForClientDirectory = 60;

// After a program's name: the file beside it that may say what Windows is to start it with.
constexpr wchar_t kManifestSuffix[] = L".manifest";

constexpr wchar_t kMissing[] = L"is missing from the top of the release. The helper cannot install it.";
constexpr wchar_t kMisspelled[] = L"has to be spelled exactly so; the release has it as ";
constexpr wchar_t kProgramManifest[] =
    L"is a manifest that Windows may obey in place of the program's own, which was checked. Leave it out.";
constexpr wchar_t kLastSequence[] =
    L"is the last one there is: no client could ever update again. Take a lower one.";
constexpr wchar_t kHugeSequence[] =
    L"leaves few numbers for later releases. Take the next one after the last release's.";
constexpr wchar_t kFileAndDirectory[] = L"is the path of a file and of a directory. Rename one of them.";
constexpr wchar_t kLittleRoom[] =
    L" characters are all that its paths leave for the client directory's path. Shorten "
    L"the longest ones, or many players cannot install it.";
constexpr wchar_t kTooLargeToCheck[] = L"is larger than 256 MiB, so it was not checked as a program.";

std::wstring SequenceText(const Manifest& manifest) {
  return L"sequence " + std::to_wstring(manifest.sequence);
}

void CheckName(const Manifest& manifest, const wchar_t* name, Findings& findings) {
  if (FindManifestEntry(manifest, name) != nullptr) {
    return;
  }
  const ManifestEntry* const other = FindManifestEntryIgnoringCase(manifest, name);
  if (other == nullptr) {
    findings.AddError(name, kMissing);
  } else {
    findings.AddError(name, kMisspelled + other->normalised_path + L". Rename it.");
  }
}

}  // namespace

ByteBuffer* BufferFor(const ManifestEntry& entry, ReleasePrograms& programs) {
  if (entry.size > kMaxCheckedProgramSize) {
    return nullptr;
  }
  if (entry.normalised_path == kClientFileName) {
    return &programs.client;
  }
  if (EqualIgnoringAsciiCase(entry.normalised_path, kLibraryFileName)) {
    return &programs.library;
  }
  return entry.normalised_path == kHelperFileName ? &programs.helper : nullptr;
}

bool ReadVerifiedProgram(const std::wstring& path, const ManifestEntry& entry, const wchar_t* mismatch,
                         ByteBuffer& bytes, UpdateError& error) {
  Sha256Digest digest;
  if (!ReadWholeFile(path, kMaxCheckedProgramSize, bytes, error)) {
    return false;
  }
  if (!Sha256OfBuffer(bytes, digest, error) || bytes.size() != entry.size ||
      !DigestsEqual(digest, entry.digest)) {
    bytes.clear();
    return RefuseUnlessExplained(error, mismatch);
  }
  return true;
}

void CheckManifest(const Manifest& manifest, Findings& findings) {
  for (const wchar_t* const name : {kClientFileName, kHelperFileName}) {
    CheckName(manifest, name, findings);
    const std::wstring beside = std::wstring(name) + kManifestSuffix;
    if (FindManifestEntryIgnoringCase(manifest, beside) != nullptr) {
      findings.AddError(beside, kProgramManifest);
    }
  }
  if (manifest.sequence == std::numeric_limits<std::uint64_t>::max()) {
    findings.AddError(SequenceText(manifest), kLastSequence);
  } else if (manifest.sequence > kMaxRoomySequence) {
    findings.AddWarning(SequenceText(manifest), kHugeSequence);
  }
  const std::set<std::wstring> directories = DirectoriesOf(manifest);
  for (const ManifestEntry& entry : manifest.entries) {
    if (directories.contains(FoldAsciiCase(entry.normalised_path))) {
      findings.AddError(entry.normalised_path, kFileAndDirectory);
    }
  }
  if (const std::size_t room = LongestClientDirectory(manifest); room < kMinRoomForClientDirectory) {
    findings.AddWarning(L"", std::to_wstring(room) + kLittleRoom);
  }
}

void CheckPrograms(const Manifest& manifest, const ReleasePrograms& programs, const ReleaseKeys& keys,
                   const ProgramAllowances& allowances, Findings& findings) {
  const auto check = [&](const wchar_t* name, const ByteBuffer& bytes, auto check_program) {
    if (!bytes.empty()) {
      check_program(name, bytes, keys, allowances, findings);
    } else if (const ManifestEntry* const entry = FindManifestEntry(manifest, name);
               entry != nullptr && entry->size > kMaxCheckedProgramSize) {
      findings.AddWarning(name, kTooLargeToCheck);
    }
  };
  check(kClientFileName, programs.client, CheckClientProgram);
  check(kHelperFileName, programs.helper, CheckHelperProgram);
  CheckClientLibrary(programs.client, FindManifestEntryIgnoringCase(manifest, kLibraryFileName),
                     programs.library, findings);
}

std::set<std::wstring> DirectoriesOf(const Manifest& manifest) {
  std::set<std::wstring> directories;
  for (const ManifestEntry& entry : manifest.entries) {
    std::wstring path = FoldAsciiCase(entry.normalised_path);
    while (!(path = std::wstring(ParentOfRelativePath(path))).empty()) {
      directories.insert(path);
    }
  }
  return directories;
}

std::wstring Describe(const Manifest& manifest) {
  return L"release=" + Utf8ToWide(manifest.release) + L" sequence=" + std::to_wstring(manifest.sequence) +
         L" files=" + std::to_wstring(manifest.entries.size());
}

void WriteDescription(const Manifest& manifest, JsonWriter& json) {
  json.Key(L"release");
  json.String(Utf8ToWide(manifest.release));
  json.Key(L"sequence");
  json.String(std::to_wstring(manifest.sequence));  // as text: many readers round numbers above 2^53
  json.Key(L"manifestSha256");
  json.String(DigestToHex(manifest.digest));
  json.Key(L"files");
  json.Number(manifest.entries.size());
  json.Key(L"bytes");
  json.Number(TotalSize(manifest));
}

}  // namespace talvex
