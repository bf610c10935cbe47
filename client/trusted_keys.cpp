#include "client/trusted_keys.h"

#include <string_view>
#include <utility>

#include "core/manifest_signature.h"
#include "core/public_key_pem.h"
#include "formats/text_lines.h"

namespace talvex::client {
namespace {

constexpr char kPemHeader[] = "-----BEGIN ";

constexpr wchar_t kWrongKey[] = L"A trusted key is not an RSA-3072 public key, as PEM text or as CNG blob.";

}  // namespace

bool AddTrustedKeys(std::span<const std::byte> bytes, TrustedKeys& keys, UpdateError& error) {
  if (IsRsa3072PublicKey(bytes)) {
    keys.emplace_back(bytes.begin(), bytes.end());
    return true;
  }
  std::string_view rest = AsText(bytes);
  while (rest.ends_with('\0')) {  // the end of a C string, which sizeof counts
    rest.remove_suffix(1);
  }
  do {
    const std::string_view pem = rest.substr(0, rest.find(kPemHeader, 1));
    rest.remove_prefix(pem.size());
    ByteBuffer blob;
    UpdateError unreported;  // one sentence for all that a key can be instead
    if (!DecodePublicKeyPem(pem, blob, unreported) || !IsRsa3072PublicKey(blob)) {
      return Refuse(error, kWrongKey);
    }
    keys.push_back(std::move(blob));
  } while (!rest.empty());
  return true;
}

std::size_t FindSigningKey(const TrustedKeys& keys, std::span<const std::byte> manifest_bytes,
                           std::span<const std::byte> signature, Manifest& manifest, UpdateError& error) {
  for (std::size_t key = 0; key < keys.size(); ++key) {
    if (VerifyManifestSignature(manifest_bytes, signature, keys[key], error)) {
      return ParseManifest(manifest_bytes, manifest, error) ? key : keys.size();
    }
  }
  return keys.size();
}

}  // namespace talvex::client
