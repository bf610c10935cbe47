#include "core/manifest_signature.h"

#include <cstdint>
#include <cstring>

#include "core/cng.h"
#include "core/sha256.h"

namespace talvex {
namespace {

constexpr wchar_t kKeyInvalid[] = L"The embedded update public key is invalid.";
constexpr wchar_t kNotRsa3072[] = L"The update key or signature does not use RSA-3072.";
constexpr wchar_t kSignatureInvalid[] = L"The update manifest signature is invalid.";

static_assert(sizeof(BCRYPT_RSAKEY_BLOB) == 24, "the blob's header is six 32-bit fields");

// An imported public key.
class RsaPublicKey {
 public:
  // CNG takes its inputs through pointers to non-const and does not write there.
  [[nodiscard]] bool Import(std::span<const std::byte> blob) {
    provider_ = OpenAlgorithmProvider(BCRYPT_RSA_ALGORITHM);
    auto* const input = const_cast<PUCHAR>(reinterpret_cast<const UCHAR*>(blob.data()));
    BCRYPT_KEY_HANDLE key = nullptr;
    if (provider_ == nullptr ||
        !BCRYPT_SUCCESS(Cng()->BCryptImportKeyPair(provider_.get(), nullptr, BCRYPT_RSAPUBLIC_BLOB, &key,
                                                   input, static_cast<ULONG>(blob.size()), 0))) {
      return false;
    }
    key_.reset(key);
    return true;
  }

  [[nodiscard]] bool Verifies(Sha256Digest digest, std::span<const std::byte> signature) const {
    BCRYPT_PKCS1_PADDING_INFO padding{BCRYPT_SHA256_ALGORITHM};
    auto* const input = const_cast<PUCHAR>(reinterpret_cast<const UCHAR*>(signature.data()));
    return BCRYPT_SUCCESS(Cng()->BCryptVerifySignature(
        key_.get(), &padding, digest.bytes.data(), static_cast<ULONG>(digest.bytes.size()), input,
        static_cast<ULONG>(signature.size()), BCRYPT_PAD_PKCS1));
  }

 private:
  OwnedAlgorithmProvider provider_;  // outlives the key
  OwnedKey key_;
};

}  // namespace

bool IsRsa3072PublicKey(std::span<const std::byte> blob) noexcept {
  BCRYPT_RSAKEY_BLOB header{};
  if (blob.size() < sizeof(header)) {
    return false;
  }
  std::memcpy(&header, blob.data(), sizeof(header));
  // Lengths are added in 64 bits: a header that claims an exponent of almost 4 GiB must not wrap round to a
  // matching sum.
  return header.Magic == BCRYPT_RSAPUBLIC_MAGIC && header.BitLength == kKeyBits &&
         header.cbModulus == kModulusLength && header.cbPublicExp != 0 && header.cbPrime1 == 0 &&
         header.cbPrime2 == 0 &&
         blob.size() == std::uint64_t{sizeof(header)} + header.cbPublicExp + header.cbModulus;
}

bool VerifyManifestSignature(std::span<const std::byte> manifest_bytes, std::span<const std::byte> signature,
                             std::span<const std::byte> key_blob, UpdateError& error) {
  if (key_blob.size() < sizeof(BCRYPT_RSAKEY_BLOB)) {
    return Refuse(error, kKeyInvalid);
  }
  if (!IsRsa3072PublicKey(key_blob) || signature.size() != kModulusLength) {
    return Refuse(error, kNotRsa3072);
  }
  Sha256Digest digest;
  if (!Sha256OfBuffer(manifest_bytes, digest, error)) {
    return false;
  }
  RsaPublicKey key;
  if (!key.Import(key_blob) || !key.Verifies(digest, signature)) {
    return Refuse(error, kSignatureInvalid);
  }
  return true;
}

}  // namespace talvex
