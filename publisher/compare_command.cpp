#include <algorithm>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/signed_manifest.h"
#include "publisher/commands.h"
#include "publisher/key_search.h"
#include "publisher/path_room.h"
#include "publisher/release_check.h"
#include "publisher/release_comparison.h"
#include "publisher/release_verification.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"

namespace talvex {
namespace {

constexpr wchar_t kOtherKey[] = L" Name the public half of the key that signed it with --key.";
constexpr wchar_t kOtherOldKey[] =
    L" If it was signed with an earlier key, name the public half of that one with --old-key.";
constexpr wchar_t kFilesOfRelease[] =
    L" A release has manifest.txt and, once it is finished, manifest.sig. "
    L"With --unsigned, the new one needs no manifest.sig.";
constexpr wchar_t kUnsigned[] = L" (not signed yet)";
constexpr wchar_t kNoWayToKey[] =
    L"is signed with another key, and its client does not hold the new one: it would take the new release "
    L"for a forgery. First publish a release that is signed with the old key and whose client holds both, "
    L"and compare with that.";
constexpr wchar_t kClientUnreadable[] =
    L"is signed with another key, so its client has to be looked at, "
    L"and the one that its manifest describes is not there. Put it back as ";

constexpr wchar_t kLosesKey[] = L"has a client that holds the key with the blob-sha256 ";
constexpr wchar_t kLosesKeyRemedy[] =
    L", and the new release's does not: players who take it can never follow a release that is signed with "
    L"that key. Build the new client with it as well, or, if it is meant, allow it with --allow-warnings.";

// What is known about one older release.
struct OldRelease {
  Manifest manifest;
  KeyChange keys = KeyChange::kSameKey;
};

// Loads and verifies an older release: with the new one's key, or else with one of the older ones.
bool LoadOldRelease(const std::wstring& directory, const PublicKey& key,
                    const std::vector<PublicKey>& old_keys, OldRelease& old, Findings& findings) {
  std::vector<const PublicKey*> keys = {&key};
  std::transform(old_keys.begin(), old_keys.end(), std::back_inserter(keys),
                 [](const PublicKey& old_key) { return &old_key; });
  std::wstring reason;
  for (const PublicKey* const tried : keys) {
    SignedManifest loaded;
    UpdateError error;
    if (LoadSignedManifest(SignedPairIn(directory), tried->blob, loaded, error)) {
      old.manifest = std::move(loaded.manifest);
      old.keys = tried == &key ? KeyChange::kSameKey : KeyChange::kOtherKey;
      return true;
    }
    reason = error.Message();
    if (!IsSignatureRefused(loaded, *tried)) {
      // No other key would help.
      findings.AddError(directory, reason + (loaded.manifest_bytes.empty() ? kFilesOfRelease : L""));
      return false;
    }
  }
  findings.AddError(directory, reason + kOtherOldKey);
  return false;
}

// Loads the new release: verified, or believed when it is said to have no signature yet.
bool LoadNewRelease(const CompareOptions& options, const PublicKey& key, Manifest& manifest,
                    Findings& findings) {
  SignedManifest release;
  UpdateError error;
  const SignedPairPaths pair = SignedPairIn(options.new_release);
  const bool loaded = options.unsigned_release
                          ? ReadWholeFile(pair.manifest, kManifestSizeLimit, release.manifest_bytes, error) &&
                                ParseManifest(release.manifest_bytes, release.manifest, error)
                          : LoadSignedManifest(pair, key.blob, release, error);
  if (!loaded) {
    const wchar_t* remedy = L"";
    if (release.manifest_bytes.empty()) {
      remedy = kFilesOfRelease;
    } else if (!options.unsigned_release && IsSignatureRefused(release, key)) {
      remedy = kOtherKey;
    }
    findings.AddError(options.new_release, error.Message() + remedy);
    return false;
  }
  manifest = std::move(release.manifest);
  return true;
}

// Reads the client of a release. False, with a message unless it is another file than the described one.
bool ReadClient(const std::wstring& directory, const Manifest& manifest, ByteBuffer& client,
                UpdateError& error) {
  const ManifestEntry* const entry = FindManifestEntry(manifest, kClientFileName);
  return entry != nullptr &&
         ReadVerifiedProgram(ClientProgramPath(FilesDirectory(directory)), *entry, L"", client, error);
}

// A client can follow a change of keys only if it holds the new key already.
void CheckClientHoldsKey(const std::wstring& directory, const Manifest& manifest, const PublicKey& key,
                         Findings& findings) {
  ByteBuffer client;
  UpdateError error;
  if (!ReadClient(directory, manifest, client, error)) {
    const std::wstring reason = error.IsEmpty() ? std::wstring() : L" " + error.Message();
    findings.AddError(directory,
                      kClientUnreadable + ClientProgramPath(FilesDirectory(directory)) + L"." + reason);
  } else if (!HoldsKey(client, key)) {
    findings.AddError(directory, kNoWayToKey);
  }
}

// The public keys in the client of a release; none when there are only its manifest and signature.
std::vector<ByteBuffer> ClientKeysOf(const std::wstring& directory, const Manifest& manifest,
                                     const PublicKey& key) {
  ByteBuffer client;
  UpdateError unreported;
  return ReadClient(directory, manifest, client, unreported) ? FindPublicKeys(client, key)
                                                             : std::vector<ByteBuffer>();
}

// A key that lies ready for a later change helps nobody whose client has lost it meanwhile.
void CheckClientKeepsKeys(const std::wstring& directory, const std::vector<ByteBuffer>& old_keys,
                          const std::vector<ByteBuffer>& new_keys, Findings& findings) {
  if (new_keys.empty()) {
    return;  // nothing is known of the new client
  }
  for (const ByteBuffer& blob : old_keys) {
    if (std::find(new_keys.begin(), new_keys.end(), blob) == new_keys.end()) {
      findings.AddWarning(directory, kLosesKey + FingerprintOf(blob) + kLosesKeyRemedy);
    }
  }
}

std::wstring DescribeUpdate(const Manifest& old, const ReleaseComparison& update) {
  return L"from " + Describe(old) + L": new=" + std::to_wstring(update.added) + L" changed=" +
         std::to_wstring(update.changed) + L" retired=" + std::to_wstring(update.retired) + L" download=" +
         std::to_wstring(update.download_size) + L" bytes plan=" + std::to_wstring(update.size.plan) +
         L" at-worst=" + std::to_wstring(std::max(update.worst_size.plan, update.worst_size.journal));
}

void WriteUpdate(const Manifest& old, const ReleaseComparison& update, JsonWriter& json) {
  json.BeginObject();
  WriteDescription(old, json);
  json.Key(L"longestClientDirectory");
  json.Number(LongestClientDirectory(old));
  const struct {
    const wchar_t* key;
    std::uint64_t value;
  } numbers[] = {{L"new", update.added},
                 {L"changed", update.changed},
                 {L"retired", update.retired},
                 {L"downloadBytes", update.download_size},
                 {L"planBytes", update.size.plan},
                 {L"journalBytes", update.size.journal},
                 {L"worstPlanBytes", update.worst_size.plan},
                 {L"worstJournalBytes", update.worst_size.journal}};
  for (const auto& number : numbers) {
    json.Key(number.key);
    json.Number(number.value);
  }
  json.EndObject();
}

// Compares with each older release. Returns the text of the result; `json` is inside the document's object.
std::wstring CompareWithAll(const CompareOptions& options, const Manifest& new_manifest, const PublicKey& key,
                            const std::vector<PublicKey>& old_keys, JsonWriter& json, Findings& findings) {
  std::wstring text = L"OK " + Describe(new_manifest) + (options.unsigned_release ? kUnsigned : L"");
  WriteDescription(new_manifest, json);
  json.Key(L"signed");
  json.Bool(!options.unsigned_release);
  json.Key(L"longestClientDirectory");
  json.Number(LongestClientDirectory(new_manifest));
  json.Key(L"updates");
  json.BeginArray();
  const std::vector<ByteBuffer> client_keys = ClientKeysOf(options.new_release, new_manifest, key);
  for (const std::wstring& directory : options.old_releases) {
    OldRelease old;
    if (!LoadOldRelease(directory, key, old_keys, old, findings)) {
      continue;
    }
    if (old.keys == KeyChange::kOtherKey && !options.common.allowances.client_key_elsewhere) {
      CheckClientHoldsKey(directory, old.manifest, key, findings);
    } else if (old.keys == KeyChange::kSameKey) {
      CheckClientKeepsKeys(directory, ClientKeysOf(directory, old.manifest, key), client_keys, findings);
    }
    const ReleaseComparison update = CompareManifests(new_manifest, old.manifest, old.keys, findings);
    WriteUpdate(old.manifest, update, json);
    text += L"\n" + DescribeUpdate(old.manifest, update);
  }
  json.EndArray();
  return text + L"\n" + DescribeRoom(new_manifest);
}

}  // namespace

int CompareReleases(const CompareOptions& options) {
  Findings findings;
  PublicKey key;
  std::vector<PublicKey> old_keys(options.old_keys.size());
  bool has_keys = LoadKey(options.common.key, key, findings);
  for (std::size_t i = 0; i < old_keys.size(); ++i) {
    has_keys = LoadKey(options.old_keys[i], old_keys[i], findings) && has_keys;
  }
  JsonWriter json = BeginDocument(L"compare");
  std::wstring text;
  Manifest new_manifest;
  if (has_keys && LoadNewRelease(options, key, new_manifest, findings)) {
    text = CompareWithAll(options, new_manifest, key, old_keys, json, findings);
  }
  return Conclude(options.common, findings, text, &json);
}

}  // namespace talvex
