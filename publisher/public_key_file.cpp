#include "publisher/public_key_file.h"

#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "core/manifest_signature.h"
#include "core/public_key_pem.h"
#include "core/sha256.h"
#include "core/text_encoding.h"
#include "formats/text_lines.h"

namespace talvex {
namespace {

constexpr std::string_view kPrivateKeyMark = "PRIVATE KEY-----";

// 65537, big-endian; the helper's build embeds no other.
constexpr std::byte kExponent[] = {std::byte{0x01}, std::byte{0x00}, std::byte{0x01}};

constexpr wchar_t kPrivateKey[] = L"The file holds a private key. Give this program the public half only.";
constexpr wchar_t kNotRsa3072[] = L"The public key does not have 3072 bits and the exponent 65537.";

bool HasTheExponent(const ByteBuffer& blob) {
  return blob.size() == sizeof(BCRYPT_RSAKEY_BLOB) + sizeof(kExponent) + kModulusLength &&
         std::equal(std::begin(kExponent), std::end(kExponent), blob.begin() + sizeof(BCRYPT_RSAKEY_BLOB));
}

}  // namespace

bool LoadPublicKey(const std::wstring& path, PublicKey& key, UpdateError& error) {
  ByteBuffer pem;
  if (!ReadWholeFile(path, kPemSizeLimit, pem, error)) {
    return false;
  }
  key.path = path;
  const std::string_view text = AsText(pem);
  if (text.find(kPrivateKeyMark) != std::string_view::npos) {
    return Refuse(error, kPrivateKey);
  }
  return DecodePublicKeyPem(text, key.blob, error) &&
         ((ReadPublicKeyPem(text, key.base64) && IsRsa3072PublicKey(key.blob) && HasTheExponent(key.blob)) ||
          Refuse(error, kNotRsa3072));
}

std::wstring FingerprintOf(const ByteBuffer& blob) {
  Sha256Digest digest;
  UpdateError unreported;
  return Sha256OfBuffer(blob, digest, unreported) ? DigestToHex(digest) : std::wstring();
}

std::string FormatPem(const PublicKey& key) {
  std::string text(kPublicKeyHeader);
  for (std::size_t start = 0; start < key.base64.size(); start += kPemLineLength) {
    text.append("\n").append(key.base64, start, kPemLineLength);
  }
  return text.append("\n").append(kPublicKeyFooter).append("\n");
}

}  // namespace talvex
