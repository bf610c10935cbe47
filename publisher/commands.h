#pragma once

// The commands of TalvexPublish.exe, each in a file of its own. A command prints its result, or writes it as
// JSON, and says everything that is wrong on standard error.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "formats/manifest.h"
#include "publisher/findings.h"
#include "publisher/json_writer.h"
#include "publisher/program_check.h"

namespace talvex {

// Exit codes. A command that is refused leaves no output behind; one whose result could not be printed counts
// as refused.
inline constexpr int kCommandDone = 0;
inline constexpr int kCommandRefused = 1;
inline constexpr int kCommandMisused = 2;  // the command line could not be used

// What several commands are told.
struct CommonOptions {
  std::wstring key;                       // PEM file of the public key that signs the release
  std::vector<std::wstring> client_keys;  // of further ones that the client has to hold
  ProgramAllowances allowances;
  bool allow_warnings = false;
  bool json = false;
};

struct ReleaseOptions {
  CommonOptions common;
  std::string name;
  std::uint64_t sequence = 0;
  std::wstring client_directory;
  std::wstring out;
};
// Makes the directory `out` with manifest.txt, still unsigned, and the files.
[[nodiscard]] int MakeRelease(const ReleaseOptions& options);

struct FinishOptions {
  CommonOptions common;
  std::wstring directory;
  std::wstring signature;
};
// Verifies the whole release with the signature, and only then puts it in its place as manifest.sig.
[[nodiscard]] int FinishRelease(const FinishOptions& options);

struct VerifyOptions {
  CommonOptions common;
  std::wstring directory;
};
// Verifies a finished release.
[[nodiscard]] int VerifyCommand(const VerifyOptions& options);

struct CompareOptions {
  CommonOptions common;
  std::vector<std::wstring> old_keys;  // other keys by which older releases may be signed
  std::wstring new_release;
  bool unsigned_release = false;  // the new one has no signature yet, and what it says is believed
  std::vector<std::wstring> old_releases;
};
// Finds out whether players with each of the older releases can install the new one, and what it costs them.
[[nodiscard]] int CompareReleases(const CompareOptions& options);

struct StatusOptions {
  CommonOptions common;
  std::wstring client_directory;
};
// Tells what is installed in a client directory, and what is wrong with it. Changes nothing.
[[nodiscard]] int ShowStatus(const StatusOptions& options);

struct KeyOptions {
  std::wstring key;
  std::wstring out;
};
// Writes the public key into the existing directory `out`, as a PEM file and as a C header.
[[nodiscard]] int ExportKey(const KeyOptions& options);

// LoadPublicKey; a failure becomes a finding about the file.
[[nodiscard]] bool LoadKey(const std::wstring& path, PublicKey& key, Findings& findings);

// Loads all keys that `options` name.
[[nodiscard]] bool LoadKeys(const CommonOptions& options, ReleaseKeys& keys, Findings& findings);

// The absolute form of `directory`, which must be a real directory; otherwise empty, with a finding.
[[nodiscard]] std::wstring ExistingDirectory(const std::wstring& directory, Findings& findings);

// The document of a command's result: an object, still open, for the keys of the command's own.
[[nodiscard]] JsonWriter BeginDocument(std::wstring_view command);

// Prints findings and, when they pass, `result`; or the document `json`, which it completes. Returns the exit
// code.
[[nodiscard]] int Conclude(const CommonOptions& options, const Findings& findings, std::wstring_view result,
                           JsonWriter* json = nullptr);

}  // namespace talvex
