#include "publisher/program_check.h"

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>

#include "core/ascii_case.h"
#include "core/text_encoding.h"
#include "formats/text_lines.h"
#include "publisher/key_search.h"
#include "publisher/program_image.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

// Resource types and ids, as numbers: windows.h has them in the form that FindResource takes.
constexpr std::uint16_t kManifestType = 24;  // RT_MANIFEST
constexpr std::uint16_t kVersionType = 16;   // RT_VERSION
constexpr std::uint16_t kProgramId = 1;      // CREATEPROCESS_MANIFEST_RESOURCE_ID, VS_VERSION_INFO

// In a program's version resource (cmake/version_resource.cmake), and only if its key is a development key.
constexpr wchar_t kDevelopmentMark[] = L"Trusts a development key";

// Windows takes a 32-bit program for an installer if one of these is in its name or version resource, and its
// manifest names no level. In lower case.
constexpr std::wstring_view kInstallerWords[] = {L"install", L"setup", L"update"};

constexpr wchar_t kNoProgram[] =
    L"is not a program that Windows can start, or is cut short. Build it again, or copy it whole.";
constexpr wchar_t kNotX86[] =
    L"is not a 32-bit program (x86), which the helper has to be. Build it with one of the presets.";
constexpr wchar_t kNotHelper[] =
    L"is not the update helper, which says in its version resource that this is its name. Put the helper "
    L"there.";
constexpr wchar_t kIsHelper[] = L"is the update helper under another name. Put the game's own client there.";
constexpr wchar_t kUnreadableManifest[] =
    L"has a manifest that is cut short or no XML, so Windows may refuse to start it. Correct the manifest.";
constexpr wchar_t kAsksForElevation[] =
    L"asks for elevation or uiAccess, so neither the helper nor the client could start it. Set the "
    L"requestedExecutionLevel in its manifest to asInvoker, and uiAccess to false.";
constexpr wchar_t kLooksLikeInstaller[] =
    L"has no requestedExecutionLevel and a word such as \"update\" in its name or version resource: Windows "
    L"takes it for an installer and demands elevation. Give it a manifest with the level asInvoker.";
constexpr wchar_t kIsVirtualised[] =
    L"has no requestedExecutionLevel, so Windows redirects what it writes below Program Files to another "
    L"folder, where the helper does not look. Give it a manifest with the level asInvoker.";
constexpr wchar_t kDevelopmentKey[] =
    L"was built with a development key, which others may have. Configure its build with "
    L"TALVEX_UPDATE_PUBLIC_KEY, or allow it with --allow-development.";
constexpr wchar_t kTrustsOtherKey[] =
    L"trusts another key than the one that this release is signed with. Configure its build with this key as "
    L"TALVEX_UPDATE_PUBLIC_KEY.";
constexpr wchar_t kTrustsTwoKeys[] =
    L"holds more than one key, so it cannot be told which one it trusts. Build it from clean sources.";
constexpr wchar_t kClientLacksKey[] =
    L"does not hold the key that this release is signed with, so it could verify no later release and start "
    L"no rollback. Build it with this key, or declare with --client-key-elsewhere "
    L"that it reads the key from another file.";
constexpr wchar_t kClientLacksOtherKey[] =
    L"could follow no release that is signed with the other key, because it does not hold ";
constexpr wchar_t kHoldsForeignKey[] = L"holds another public key, with the blob-sha256 ";
constexpr wchar_t kForeignKeyRemedy[] =
    L": if it is given to the update library, whoever has its private half can publish for this client. "
    L"Build it without that key, name it with --client-key, or allow it with --allow-warnings.";

constexpr wchar_t kNoLibrary[] =
    L"is missing from the top of the release, and without it Windows does not start Talvex.exe. Put it "
    L"there.";
constexpr wchar_t kOtherLibrary[] =
    L"is not a DLL for the same kind of processor as Talvex.exe, which Windows could not start with it. Put "
    L"the right one there: a 64-bit game needs the 64-bit one.";

// Removes the comments of an XML text: they may name what the manifest does not ask for.
std::string WithoutComments(std::string_view xml) {
  std::string text;
  for (std::size_t comment = 0; (comment = xml.find("<!--")) != std::string_view::npos;) {
    text += xml.substr(0, comment);
    const std::size_t end = xml.find("-->", comment);
    xml.remove_prefix(end == std::string_view::npos ? xml.size() : end + 3);
  }
  return text.append(xml);
}

// The value of the attribute `name` of an XML element; empty when there is none.
std::string_view AttributeOf(std::string_view element, std::string_view name) {
  constexpr std::string_view kBlank = " \t\r\n";
  for (std::size_t at = element.find(name); at != std::string_view::npos; at = element.find(name, at + 1)) {
    std::size_t value = element.find_first_not_of(kBlank, at + name.size());
    if (value == std::string_view::npos || element[value] != '=') {
      continue;
    }
    value = element.find_first_not_of(kBlank, value + 1);
    if (value != std::string_view::npos && (element[value] == '"' || element[value] == '\'')) {
      return element.substr(value + 1, element.find(element[value], value + 1) - value - 1);
    }
  }
  return {};
}

// What the elements requestedExecutionLevel of a manifest ask for.
struct RequestedLevel {
  bool is_named = false;
  bool is_higher = false;  // than the rights that a program is started with
};

RequestedLevel RequestedLevelIn(std::string_view manifest) {
  constexpr std::string_view kElement = "requestedExecutionLevel";
  RequestedLevel requested;
  for (std::size_t at = manifest.find(kElement); at != std::string_view::npos;
       at = manifest.find(kElement, at + 1)) {
    const std::string_view element = manifest.substr(at, manifest.find('>', at) - at);
    const std::string_view level = AttributeOf(element, "level");
    const std::string_view access = AttributeOf(element, "uiAccess");
    requested.is_named |= !level.empty();
    requested.is_higher |= (!level.empty() && level != "asInvoker") ||
                           (!access.empty() && FoldAsciiCase(Utf8ToWide(access)) != L"false");
  }
  return requested;
}

// The UTF-16 text in `bytes`; binary fields of a resource give arbitrary characters.
std::wstring Utf16Text(std::span<const std::byte> bytes) {
  std::wstring text;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    text += static_cast<wchar_t>(std::to_integer<unsigned>(bytes[i]) | std::to_integer<unsigned>(bytes[i + 1])
                                                                           << 8);
  }
  return text;
}

// The text of a manifest, which is in UTF-8 or UTF-16, without its comments and what follows it; empty when
// its end is missing.
std::string ManifestText(std::span<const std::byte> resource) {
  constexpr std::wstring_view kByteOrderMark = L"\xfeff";
  const std::wstring wide = Utf16Text(resource);
  std::string text =
      WithoutComments(wide.starts_with(kByteOrderMark) ? WideToUtf8(wide) : std::string(AsText(resource)));
  text.erase(text.find_last_not_of(std::string_view(" \t\r\n\0", 5)) + 1);
  const std::size_t last_tag = text.rfind("</");
  const bool is_whole = text.ends_with('>') && last_tag != std::string::npos &&
                        text.find("assembly", last_tag) != std::string::npos;
  return is_whole ? text : std::string();
}

// The text of a program's version resource, in lower case.
std::wstring VersionText(const ProgramImage& image) {
  std::wstring text;
  for (const std::span<const std::byte> resource : image.Resources(kVersionType, kProgramId)) {
    text += Utf16Text(resource);
  }
  return FoldAsciiCase(text);
}

void CheckElevation(std::wstring_view subject, const ProgramImage& image, Findings& findings) {
  const auto manifests = image.Resources(kManifestType, kProgramId);
  bool has_level = !manifests.empty();
  // One for each language, of which Windows takes that of the player.
  for (const std::span<const std::byte> manifest : manifests) {
    const std::string text = ManifestText(manifest);
    if (text.empty()) {
      findings.AddError(subject, kUnreadableManifest);
      return;
    }
    const RequestedLevel requested = RequestedLevelIn(text);
    if (requested.is_higher) {
      findings.AddError(subject, kAsksForElevation);
      return;
    }
    has_level = has_level && requested.is_named;
  }
  if (has_level || !image.IsX86()) {
    return;  // Windows guesses only about 32-bit programs
  }
  const std::wstring names = FoldAsciiCase(subject) + VersionText(image);
  if (std::any_of(std::begin(kInstallerWords), std::end(kInstallerWords),
                  [&](std::wstring_view word) { return names.find(word) != std::wstring::npos; })) {
    findings.AddError(subject, kLooksLikeInstaller);
  } else {
    findings.AddWarning(subject, kIsVirtualised);
  }
}

void CheckDevelopmentKey(std::wstring_view subject, const ProgramImage& image,
                         const ProgramAllowances& allowances, Findings& findings) {
  if (!allowances.development &&
      VersionText(image).find(FoldAsciiCase(kDevelopmentMark)) != std::wstring::npos) {
    findings.AddError(subject, kDevelopmentKey);
  }
}

// The helper's version resource names the file that it is.
bool IsHelper(const ProgramImage& image) {
  return VersionText(image).find(FoldAsciiCase(kHelperFileName)) != std::wstring::npos;
}

bool IsAmong(const ByteBuffer& blob, const ReleaseKeys& keys) {
  return blob == keys.signing.blob || std::any_of(keys.for_client.begin(), keys.for_client.end(),
                                                  [&](const PublicKey& key) { return key.blob == blob; });
}

}  // namespace

void CheckHelperProgram(std::wstring_view subject, std::span<const std::byte> bytes, const ReleaseKeys& keys,
                        const ProgramAllowances& allowances, Findings& findings) {
  ProgramImage image;
  if (!image.Parse(bytes)) {
    findings.AddError(subject, kNoProgram);
    return;
  }
  if (!IsHelper(image)) {
    findings.AddError(subject, kNotHelper);
  }
  if (!image.IsX86()) {
    findings.AddError(subject, kNotX86);
  }
  CheckElevation(subject, image, findings);
  CheckDevelopmentKey(subject, image, allowances, findings);
  const auto trusted = FindKeyBlobs(bytes, keys.signing);
  if (trusted.size() > 1) {
    findings.AddError(subject, kTrustsTwoKeys);
  } else if (trusted.empty() || !std::ranges::equal(trusted.front(), keys.signing.blob)) {
    findings.AddError(subject, kTrustsOtherKey);
  }
}

void CheckClientProgram(std::wstring_view subject, std::span<const std::byte> bytes, const ReleaseKeys& keys,
                        const ProgramAllowances& allowances, Findings& findings) {
  ProgramImage image;
  if (!image.Parse(bytes)) {
    findings.AddError(subject, kNoProgram);
    return;
  }
  if (IsHelper(image)) {
    findings.AddError(subject, kIsHelper);
  }
  CheckElevation(subject, image, findings);
  CheckDevelopmentKey(subject, image, allowances, findings);
  if (allowances.client_key_elsewhere) {
    return;
  }
  if (!HoldsKey(bytes, keys.signing)) {
    findings.AddError(subject, kClientLacksKey);
  }
  for (const PublicKey& key : keys.for_client) {
    if (!HoldsKey(bytes, key)) {
      findings.AddError(subject, kClientLacksOtherKey + key.path + L". Build it with that key as well.");
    }
  }
  for (const ByteBuffer& blob : FindPublicKeys(bytes, keys.signing)) {
    if (!IsAmong(blob, keys)) {
      findings.AddWarning(subject, kHoldsForeignKey + FingerprintOf(blob) + kForeignKeyRemedy);
    }
  }
}

void CheckClientLibrary(std::span<const std::byte> client, const ManifestEntry* library,
                        std::span<const std::byte> library_bytes, Findings& findings) {
  ProgramImage program;
  if (!program.Parse(client)) {
    return;
  }
  if (library == nullptr) {
    if (program.Imports(kLibraryFileName)) {
      findings.AddError(kLibraryFileName, kNoLibrary);
    }
    return;
  }
  const bool may_be_either = program.IsX86() && program.IsManaged();
  if (ProgramImage image;
      !library_bytes.empty() && !may_be_either &&
      (!image.Parse(library_bytes, ImageKind::kLibrary) || image.Machine() != program.Machine())) {
    findings.AddError(kLibraryFileName, kOtherLibrary);
  }
}

}  // namespace talvex
