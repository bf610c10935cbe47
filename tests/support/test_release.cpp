#include "tests/support/test_release.h"

#include <gtest/gtest.h>

#include <windows.h>
// Needs windows.h first.
#include <wincrypt.h>

#include <algorithm>

#include "core/sha256.h"
#include "core/text_encoding.h"
#include "formats/text_lines.h"

namespace talvex::test {

std::string SignWithKey(std::string_view text, const std::wstring& key_folder) {
  const std::string key_blob = ReadTestFile(key_folder + L"\\private.blob");
  HCRYPTPROV provider = 0;
  HCRYPTKEY key = 0;
  HCRYPTHASH hash = 0;
  std::string signature(384, '\0');
  auto length = static_cast<DWORD>(signature.size());
  EXPECT_TRUE(
      CryptAcquireContextW(&provider, nullptr, MS_ENH_RSA_AES_PROV_W, PROV_RSA_AES, CRYPT_VERIFYCONTEXT) &&
      CryptImportKey(provider, reinterpret_cast<const BYTE*>(key_blob.data()),
                     static_cast<DWORD>(key_blob.size()), 0, 0, &key) &&
      CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash) &&
      CryptHashData(hash, reinterpret_cast<const BYTE*>(text.data()), static_cast<DWORD>(text.size()), 0) &&
      CryptSignHashW(hash, AT_KEYEXCHANGE, nullptr, 0, reinterpret_cast<BYTE*>(signature.data()), &length));
  CryptDestroyHash(hash);
  CryptDestroyKey(key);
  CryptReleaseContext(provider, 0);
  std::ranges::reverse(signature);  // this interface counts from the low end
  return signature;
}

std::string HexDigestOf(std::string_view text) {
  Sha256Digest digest;
  UpdateError error;
  EXPECT_TRUE(Sha256OfBuffer(AsBytes(text), digest, error));
  return WideToUtf8(DigestToHex(digest));
}

std::string TestRelease::ManifestText() const {
  std::string text = "TALVEX-UPDATE-V1\nrelease\t" + name + "\nsequence\t" + std::to_string(sequence) + "\n";
  for (const auto& [path, contents] : files) {
    text += "file\t" + std::to_string(contents.size()) + "\t" + HexDigestOf(contents) + "\t" + path + "\n";
  }
  return text;
}

Manifest TestRelease::Parsed() const {
  Manifest manifest;
  UpdateError error;
  EXPECT_TRUE(ParseManifest(AsBytes(ManifestText()), manifest, error)) << WideToUtf8(error.Message());
  return manifest;
}

Tree TestRelease::Installed() const {
  const std::string manifest = ManifestText();
  Tree tree{{L".talvex-update-cache\\manifest.txt", manifest},
            {L".talvex-update-cache\\manifest.sig", Signature()},
            {L"TalvexUpdateState.dat", "TALVEX-UPDATE-STATE-V1\nsequence\t" + std::to_string(sequence) +
                                           "\nrelease\t" + name + "\nmanifest-sha256\t" +
                                           HexDigestOf(manifest) + "\n"}};
  for (const auto& [path, contents] : files) {
    std::wstring wide = Utf8ToWide(path);
    std::ranges::replace(wide, L'/', L'\\');
    tree[wide] = contents;
  }
  return tree;
}

void InstallTestRelease(const TestRelease& release, const std::wstring& directory) {
  for (const auto& [path, contents] : release.Installed()) {
    WriteTestFile(directory + L"\\" + path, contents);
  }
}

std::string PlanText(const TestRelease& release, const StagedPlan& plan) {
  std::string text = "TALVEX-APPLY-V1\nmanifest-sha256\t" + HexDigestOf(release.ManifestText()) + "\n";
  for (const std::string& path : plan.install) {
    text += "file\t" + path + "\n";
  }
  for (const std::string& path : plan.retire) {
    text += "delete\t" + path + "\n";
  }
  return text;
}

std::wstring StageTestRelease(const TestRelease& release, const StagedPlan& plan,
                              const std::wstring& client_root) {
  const std::string manifest = release.ManifestText();
  const std::wstring stage = client_root + L"\\.talvex-update\\" + Utf8ToWide(HexDigestOf(manifest));
  WriteTestFile(stage + L"\\manifest.txt", manifest);
  WriteTestFile(stage + L"\\manifest.sig", release.Signature());
  WriteTestFile(stage + L"\\apply.plan", PlanText(release, plan));
  MakeTestDirectory(stage + L"\\files");
  for (const std::string& path : plan.install) {
    WriteTestFile(stage + L"\\files\\" + Utf8ToWide(path), release.files.at(path));
  }
  return stage;
}

}  // namespace talvex::test
