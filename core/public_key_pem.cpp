#include "core/public_key_pem.h"

#include <windows.h>
// Needs windows.h first.
#include <wincrypt.h>

#include <cstring>

#include "core/system_library.h"

namespace talvex {
namespace {

constexpr std::string_view kWhiteSpace = " \t\r\n";

constexpr wchar_t kNotPublicKey[] = L"The file does not hold one public key in PEM form.";
constexpr wchar_t kNoDecoding[] = L"Windows could not decode the public key.";
constexpr wchar_t kNotRsaKey[] = L"The public key is not an RSA key.";

// The decoding functions. Not imported: crypt32.dll is not one of the DLLs that Windows always takes from its
// system directory, whatever is beside the program.
struct DecodingFunctions {
  decltype(&::CryptStringToBinaryA) CryptStringToBinaryA = nullptr;
  decltype(&::CryptDecodeObjectEx) CryptDecodeObjectEx = nullptr;

  [[nodiscard]] bool Load() {
    const HMODULE library = LoadSystemLibrary(L"crypt32.dll");
    return FindFunction(library, "CryptStringToBinaryA", CryptStringToBinaryA) &&
           FindFunction(library, "CryptDecodeObjectEx", CryptDecodeObjectEx);
  }
};

// Decodes `encoded` as the structure `type` into `decoded`, which also holds what the structure points to.
// The size reported first is only an upper bound; the size written is the one that counts.
bool DecodeObject(const DecodingFunctions& crypt, const char* type, const BYTE* encoded, DWORD size,
                  ByteBuffer& decoded) {
  DWORD decoded_size = 0;
  if (!crypt.CryptDecodeObjectEx(X509_ASN_ENCODING, type, encoded, size, 0, nullptr, nullptr,
                                 &decoded_size)) {
    return false;
  }
  decoded.resize(decoded_size);
  if (!crypt.CryptDecodeObjectEx(X509_ASN_ENCODING, type, encoded, size, 0, nullptr, decoded.data(),
                                 &decoded_size)) {
    return false;
  }
  decoded.resize(decoded_size);
  return true;
}

}  // namespace

bool ReadPublicKeyPem(std::string_view pem, std::string& base64) {
  const std::size_t footer = pem.find(kPublicKeyFooter);
  if (!pem.starts_with(kPublicKeyHeader) || footer == std::string_view::npos ||
      pem.find_first_not_of(kWhiteSpace, footer + kPublicKeyFooter.size()) != std::string_view::npos) {
    return false;
  }
  base64 = pem.substr(kPublicKeyHeader.size(), footer - kPublicKeyHeader.size());
  std::erase_if(base64, [](char byte) { return kWhiteSpace.find(byte) != std::string_view::npos; });
  return true;
}

bool DecodePublicKeyPem(std::string_view pem, ByteBuffer& key_blob, UpdateError& error) {
  key_blob.clear();
  DecodingFunctions crypt;
  if (!crypt.Load()) {
    return Refuse(error, kNoDecoding);
  }
  std::string base64;
  ByteBuffer der(pem.size());
  auto der_size = static_cast<DWORD>(der.size());
  if (!ReadPublicKeyPem(pem, base64) ||
      !crypt.CryptStringToBinaryA(base64.data(), static_cast<DWORD>(base64.size()), CRYPT_STRING_BASE64,
                                  reinterpret_cast<BYTE*>(der.data()), &der_size, nullptr, nullptr)) {
    return Refuse(error, kNotPublicKey);
  }
  ByteBuffer decoded;
  if (!DecodeObject(crypt, X509_PUBLIC_KEY_INFO, reinterpret_cast<const BYTE*>(der.data()), der_size,
                    decoded)) {
    return Refuse(error, kNotPublicKey);
  }
  const auto& info = *reinterpret_cast<const CERT_PUBLIC_KEY_INFO*>(decoded.data());
  if (std::strcmp(info.Algorithm.pszObjId, szOID_RSA_RSA) != 0 ||
      !DecodeObject(crypt, CNG_RSA_PUBLIC_KEY_BLOB, info.PublicKey.pbData, info.PublicKey.cbData, key_blob)) {
    return Refuse(error, kNotRsaKey);
  }
  return true;
}

}  // namespace talvex
