#pragma once

// The functions of the Windows cryptography API (CNG) that the program calls, in a table filled from
// bcrypt.dll in the system directory.

#include <windows.h>

#include <bcrypt.h>

#include <memory>

namespace talvex {

struct CngFunctions {
  decltype(&::BCryptOpenAlgorithmProvider) BCryptOpenAlgorithmProvider;
  decltype(&::BCryptCloseAlgorithmProvider) BCryptCloseAlgorithmProvider;
  decltype(&::BCryptGetProperty) BCryptGetProperty;
  decltype(&::BCryptCreateHash) BCryptCreateHash;
  decltype(&::BCryptHashData) BCryptHashData;
  decltype(&::BCryptFinishHash) BCryptFinishHash;
  decltype(&::BCryptDestroyHash) BCryptDestroyHash;
  decltype(&::BCryptImportKeyPair) BCryptImportKeyPair;
  decltype(&::BCryptVerifySignature) BCryptVerifySignature;
  decltype(&::BCryptDestroyKey) BCryptDestroyKey;
};

// The table, filled at the first call; null when the DLL or one of the functions is missing. A test may put
// functions of its own into it.
[[nodiscard]] CngFunctions* Cng() noexcept;

// Owners of CNG handles, which exist only if the table does.
struct CloseAlgorithmProvider {
  void operator()(BCRYPT_ALG_HANDLE provider) const noexcept {
    Cng()->BCryptCloseAlgorithmProvider(provider, 0);
  }
};
struct DestroyHash {
  void operator()(BCRYPT_HASH_HANDLE hash) const noexcept { Cng()->BCryptDestroyHash(hash); }
};
struct DestroyKey {
  void operator()(BCRYPT_KEY_HANDLE key) const noexcept { Cng()->BCryptDestroyKey(key); }
};
using OwnedAlgorithmProvider = std::unique_ptr<void, CloseAlgorithmProvider>;
using OwnedHash = std::unique_ptr<void, DestroyHash>;
using OwnedKey = std::unique_ptr<void, DestroyKey>;

// The provider for `algorithm`; null when CNG has none or is not available.
[[nodiscard]] OwnedAlgorithmProvider OpenAlgorithmProvider(const wchar_t* algorithm) noexcept;

}  // namespace talvex
