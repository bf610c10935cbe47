#include "publisher/public_key_file.h"

#include <windows.h>
// Needs windows.h first.
#include <wincrypt.h>

#include <cstring>
#include <string_view>

#include "formats/text_lines.h"

namespace talvex {
namespace {

constexpr std::uint32_t kPemSizeLimit = 16'384;  // bytes
constexpr std::string_view kPemHeader = "-----BEGIN PUBLIC KEY-----";

constexpr std::wstring_view kNotPublicKey = L"The file does not hold one public key in PEM form.";
constexpr std::wstring_view kNotRsaKey = L"The public key is not an RSA key.";

// Decodes `encoded` as the structure `type` into `decoded`, which also holds what the structure points to.
bool DecodeObject(const char* type, const BYTE* encoded, DWORD size, ByteBuffer& decoded) {
  DWORD decoded_size = 0;
  if (!CryptDecodeObjectEx(X509_ASN_ENCODING, type, encoded, size, 0, nullptr, nullptr, &decoded_size)) {
    return false;
  }
  decoded.resize(decoded_size);
  return CryptDecodeObjectEx(X509_ASN_ENCODING, type, encoded, size, 0, nullptr, decoded.data(),
                             &decoded_size) != 0;
}

}  // namespace

bool LoadPublicKey(const std::wstring& path, ByteBuffer& key_blob, UpdateError& error) {
  key_blob.clear();
  ByteBuffer pem;
  if (!ReadWholeFile(path, kPemSizeLimit, pem, error)) {
    return false;
  }
  const std::string_view text = AsText(pem);
  auto der_size = static_cast<DWORD>(text.size());
  ByteBuffer der(text.size());
  if (!text.starts_with(kPemHeader) ||
      !CryptStringToBinaryA(text.data(), der_size, CRYPT_STRING_BASE64HEADER,
                            reinterpret_cast<BYTE*>(der.data()), &der_size, nullptr, nullptr)) {
    return Refuse(error, kNotPublicKey);
  }
  ByteBuffer decoded;
  if (!DecodeObject(X509_PUBLIC_KEY_INFO, reinterpret_cast<const BYTE*>(der.data()), der_size, decoded)) {
    return Refuse(error, kNotPublicKey);
  }
  const auto& info = *reinterpret_cast<const CERT_PUBLIC_KEY_INFO*>(decoded.data());
  if (std::strcmp(info.Algorithm.pszObjId, szOID_RSA_RSA) != 0 ||
      !DecodeObject(CNG_RSA_PUBLIC_KEY_BLOB, info.PublicKey.pbData, info.PublicKey.cbData, key_blob)) {
    return Refuse(error, kNotRsaKey);
  }
  return true;
}

}  // namespace talvex
