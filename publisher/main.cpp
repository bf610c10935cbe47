// TalvexPublish.exe: describes a client directory as a release, and verifies a signed release. It never sees
// the private key: signing is done elsewhere, with openssl, between the two commands.

#include <windows.h>
// Needs windows.h first.
#include <shellapi.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/ascii_case.h"
#include "core/local_memory.h"
#include "core/regular_file.h"
#include "core/system_library.h"
#include "core/text_encoding.h"
#include "formats/manifest.h"
#include "formats/signed_manifest.h"
#include "publisher/client_tree.h"
#include "publisher/console.h"
#include "publisher/public_key_file.h"
#include "publisher/release_manifest.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kExitUsage = 2;

constexpr wchar_t kHelp[] =
    L"TalvexPublish.exe manifest --release ID --sequence N --out DIR CLIENT_DIR\n"
    L"    Writes DIR\\manifest.txt, which describes every file below CLIENT_DIR. The updater's own files at\n"
    L"    its top are left out. ID is the name that players see, N a number that grows with every release.\n"
    L"TalvexPublish.exe verify DIR --public-key FILE\n"
    L"    Proves that DIR\\manifest.sig is the signature over DIR\\manifest.txt by the key whose public "
    L"half\n"
    L"    FILE holds (PEM), and that the manifest is one that the helper accepts.\n"
    L"TalvexPublish.exe --help\n"
    L"Between the two, the manifest is signed where the private key is kept:\n"
    L"    openssl dgst -sha256 -sign PRIVATE.pem -out manifest.sig manifest.txt\n"
    L"Exit codes: 0 done; 1 refused or failed, and nothing was written; 2 the command line is not one of "
    L"these.";

// The files without which the helper cannot install a release, in exactly this spelling.
constexpr std::wstring_view kNeededFiles[] = {kClientFileName, kHelperFileName};

struct CommandLine {
  std::wstring release;
  std::wstring sequence;
  std::wstring out;
  std::wstring public_key;
  std::wstring directory;
};

// Every word after the command is an option with its value or the one directory. False when it is neither, or
// occurs twice.
bool ReadOptions(std::span<wchar_t* const> words, CommandLine& options) {
  struct Option {
    std::wstring_view name;
    std::wstring& value;
  };
  const Option known[] = {{L"--release", options.release},
                          {L"--sequence", options.sequence},
                          {L"--out", options.out},
                          {L"--public-key", options.public_key}};
  for (std::size_t i = 0; i < words.size(); ++i) {
    std::wstring* value = &options.directory;
    if (std::wstring_view(words[i]).starts_with(L"--")) {
      value = nullptr;
      for (const Option& option : known) {
        if (option.name == words[i] && i + 1 < words.size()) {
          value = &option.value;
        }
      }
      ++i;
    }
    if (value == nullptr || !value->empty()) {
      return false;
    }
    *value = words[i];
  }
  return !options.directory.empty();
}

int Fail(std::wstring_view message) {
  WriteLine(Stream::kError, message);
  return kFailed;
}

int MisusedCommandLine(std::wstring_view message) {
  WriteLine(Stream::kError, message);
  WriteLine(Stream::kError, L"TalvexPublish.exe --help tells how it is used.");
  return kExitUsage;
}

std::wstring Describe(const Manifest& manifest) {
  return L"release=" + Utf8ToWide(manifest.release) + L" sequence=" + std::to_wstring(manifest.sequence) +
         L" files=" + std::to_wstring(manifest.entries.size());
}

void WarnAboutMissingFiles(const Manifest& manifest) {
  for (const std::wstring_view name : kNeededFiles) {
    if (FindManifestEntry(manifest, name) == nullptr) {
      WriteLine(Stream::kError, L"Warning: the release has no " + std::wstring(name) +
                                    L" at its top, spelled exactly so. The helper cannot install it.");
    }
  }
}

bool LiesInside(std::wstring_view directory, std::wstring_view outer) {
  std::wstring prefix = FoldAsciiCase(outer);
  if (!prefix.ends_with(L'\\')) {
    prefix += L'\\';
  }
  return (FoldAsciiCase(directory) + L'\\').starts_with(prefix);
}

int MakeManifest(const CommandLine& options) {
  std::uint64_t sequence = 0;
  const std::string release = WideToUtf8(options.release);
  if (!IsReleaseIdentifier(release)) {
    return MisusedCommandLine(
        L"The release needs 1 to 64 letters, digits, dots, underscores and hyphens, a letter or digit first "
        L"and "
        L"no dot last.");
  }
  if (!ParseDecimalU64(options.sequence, sequence) || sequence == 0) {
    return MisusedCommandLine(L"The sequence needs a decimal number from 1 to 18446744073709551615.");
  }
  UpdateError error;
  const std::wstring client_root = ResolveClientRoot(options.directory, error);
  const std::wstring out = ResolveClientRoot(options.out, error);
  if (client_root.empty() || out.empty()) {
    return Fail(error.Message());
  }
  if (!IsRealDirectory(client_root)) {
    return Fail(client_root + L" is not a directory, or is a link to one.");
  }
  if (LiesInside(out, client_root)) {
    return MisusedCommandLine(L"The manifest cannot be written into the directory that it describes.");
  }
  ClientTree tree;
  if (!ListClientFiles(client_root, tree, error)) {
    return Fail(error.Message());
  }
  for (const std::wstring& name : tree.skipped) {
    WriteLine(Stream::kError, L"Left out, as it is the updater's own: " + name);
  }
  if (!tree.refusals.empty()) {
    for (const std::wstring& refusal : tree.refusals) {
      WriteLine(Stream::kError, refusal);
    }
    return Fail(L"The release was not published: " + std::to_wstring(tree.refusals.size()) +
                L" of its files or directories cannot be part of a release.");
  }
  CreateDirectoryW(out.c_str(), nullptr);  // a failure shows in the write below
  Manifest manifest;
  const std::wstring path = SignedPairIn(out).manifest;
  if (!WriteReleaseManifest(tree, release, sequence, path, manifest, error)) {
    return Fail(error.Message());
  }
  WarnAboutMissingFiles(manifest);
  WriteLine(Stream::kOutput, L"Wrote " + path + L": " + Describe(manifest));
  WriteLine(Stream::kOutput, L"manifest-sha256 " + DigestToHex(manifest.digest));
  WriteLine(Stream::kOutput, L"It can be installed in client directories of up to " +
                                 std::to_wstring(LongestClientDirectory(tree)) + L" characters.");
  return kDone;
}

int VerifyPair(const CommandLine& options) {
  UpdateError error;
  ByteBuffer key_blob;
  if (!LoadPublicKey(options.public_key, key_blob, error)) {
    return Fail(options.public_key + L": " + error.Message());
  }
  SignedManifest release;
  if (!LoadSignedManifest(SignedPairIn(options.directory), key_blob, release, error)) {
    return Fail(error.Message());
  }
  WarnAboutMissingFiles(release.manifest);
  WriteLine(Stream::kOutput, L"OK " + Describe(release.manifest));
  return kDone;
}

int RunPublisher(std::span<wchar_t* const> words) {
  if (words.size() == 2 && std::wstring_view(words[1]) == L"--help") {
    WriteLine(Stream::kOutput, kHelp);
    return kDone;
  }
  CommandLine options;
  const std::wstring_view command = words.size() > 1 ? words[1] : L"";
  if (words.size() > 2 && ReadOptions(words.subspan(2), options)) {
    const bool publishes = !options.release.empty() && !options.sequence.empty() && !options.out.empty();
    if (command == L"manifest" && publishes && options.public_key.empty()) {
      return MakeManifest(options);
    }
    if (command == L"verify" && !options.public_key.empty() && options.release.empty() &&
        options.sequence.empty() && options.out.empty()) {
      return VerifyPair(options);
    }
  }
  return MisusedCommandLine(L"TalvexPublish.exe needs a command and exactly its operands.");
}

}  // namespace
}  // namespace talvex

int main() {
  talvex::RestrictDllSearch();
  int count = 0;
  const talvex::ArgumentVector words(CommandLineToArgvW(GetCommandLineW(), &count));
  return words == nullptr ? talvex::kExitUsage
                          : talvex::RunPublisher({words.get(), static_cast<std::size_t>(count)});
}
