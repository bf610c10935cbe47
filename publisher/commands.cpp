#include "publisher/commands.h"

#include "core/regular_file.h"
#include "publisher/console.h"
#include "storage/client_root.h"

namespace talvex {
namespace {

constexpr wchar_t kNotDirectory[] = L"is not a directory, or is a link to one.";

constexpr wchar_t kSigningKeyAgain[] =
    L"is the key that signs the release. Name the other one that the client has to hold.";

}  // namespace

bool LoadKey(const std::wstring& path, PublicKey& key, Findings& findings) {
  UpdateError error;
  if (!LoadPublicKey(path, key, error)) {
    findings.AddError(path, error.Message());
    return false;
  }
  return true;
}

bool LoadKeys(const CommonOptions& options, ReleaseKeys& keys, Findings& findings) {
  bool loaded = LoadKey(options.key, keys.signing, findings);
  for (const std::wstring& path : options.client_keys) {
    PublicKey& key = keys.for_client.emplace_back();
    loaded = LoadKey(path, key, findings) && loaded;
    if (loaded && key.blob == keys.signing.blob) {
      findings.AddError(path, kSigningKeyAgain);
      loaded = false;
    }
  }
  return loaded;
}

std::wstring ExistingDirectory(const std::wstring& directory, Findings& findings) {
  UpdateError error;
  std::wstring root = ResolveClientRoot(directory, error);
  if (root.empty() || !IsRealDirectory(root)) {
    findings.AddError(directory, root.empty() ? error.Message() : kNotDirectory);
    return {};
  }
  return root;
}

JsonWriter BeginDocument(std::wstring_view command) {
  JsonWriter json;
  json.BeginObject();
  json.Key(L"command");
  json.String(command);
  return json;
}

int Conclude(const CommonOptions& options, const Findings& findings, std::wstring_view result,
             JsonWriter* json) {
  const bool passed = findings.Pass(options.allow_warnings);
  if (options.json && json != nullptr) {
    json->Key(L"ok");
    json->Bool(passed);
    findings.Write(*json);
    json->EndObject();
    WriteLine(Stream::kOutput, json->Text());
  } else {
    findings.Print();
    if (passed && !result.empty()) {
      WriteLines(Stream::kOutput, result);
    }
  }
  return passed ? kCommandDone : kCommandRefused;
}

}  // namespace talvex
