#pragma once

// The functions of Windows' cryptography (CNG) that the program calls, as a table that is filled from
// bcrypt.dll in the system directory.

#include <windows.h>

#include <bcrypt.h>

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

// The table, filled at the first call; null when the DLL or one of the functions cannot be had. A test may
// put functions of its own into it.
[[nodiscard]] CngFunctions* Cng() noexcept;

}  // namespace talvex
