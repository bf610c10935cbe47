#include "publisher/public_key_file.h"

#include <windows.h>

#include <bcrypt.h>

#include <cstdint>
#include <cstring>
#include <string_view>

#include "core/manifest_signature.h"
#include "core/public_key_pem.h"
#include "formats/text_lines.h"

namespace talvex {
namespace {

constexpr std::uint32_t kPemSizeLimit = 16'384;  // bytes
constexpr std::string_view kPrivateKeyMark = "PRIVATE KEY-----";

// 65537, big-endian; the helper's build embeds no other.
constexpr unsigned char kExponent[] = {0x01, 0x00, 0x01};

constexpr wchar_t kPrivateKey[] = L"The file holds a private key. Give this program the public half only.";
constexpr wchar_t kNotRsa3072[] = L"The public key does not have 3072 bits and the exponent 65537.";

bool IsRsa3072(const ByteBuffer& blob) {
  BCRYPT_RSAKEY_BLOB header{};
  if (blob.size() < sizeof(header) + sizeof(kExponent)) {
    return false;
  }
  std::memcpy(&header, blob.data(), sizeof(header));
  return header.Magic == BCRYPT_RSAPUBLIC_MAGIC && header.BitLength == kKeyBits &&
         header.cbPublicExp == sizeof(kExponent) &&
         std::memcmp(blob.data() + sizeof(header), kExponent, sizeof(kExponent)) == 0;
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
         ((ReadPublicKeyPem(text, key.base64) && IsRsa3072(key.blob)) || Refuse(error, kNotRsa3072));
}

std::string FormatPem(const PublicKey& key) {
  std::string text("-----BEGIN PUBLIC KEY-----");
  for (std::size_t start = 0; start < key.base64.size(); start += kPemLineLength) {
    text.append("\n").append(key.base64, start, kPemLineLength);
  }
  return text.append("\n").append("-----END PUBLIC KEY-----").append("\n");
}

}  // namespace talvex
