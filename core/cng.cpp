#include "core/cng.h"

#include "core/system_library.h"

namespace talvex {
namespace {

struct LoadedCng {
  CngFunctions functions{};
  bool is_complete = false;
};

LoadedCng LoadCng() noexcept {
  const HMODULE library = LoadSystemLibrary(L"bcrypt.dll");
  LoadedCng cng;
  CngFunctions& f = cng.functions;
  cng.is_complete = FindFunction(library, "BCryptOpenAlgorithmProvider", f.BCryptOpenAlgorithmProvider) &&
                    FindFunction(library, "BCryptCloseAlgorithmProvider", f.BCryptCloseAlgorithmProvider) &&
                    FindFunction(library, "BCryptGetProperty", f.BCryptGetProperty) &&
                    FindFunction(library, "BCryptCreateHash", f.BCryptCreateHash) &&
                    FindFunction(library, "BCryptHashData", f.BCryptHashData) &&
                    FindFunction(library, "BCryptFinishHash", f.BCryptFinishHash) &&
                    FindFunction(library, "BCryptDestroyHash", f.BCryptDestroyHash) &&
                    FindFunction(library, "BCryptImportKeyPair", f.BCryptImportKeyPair) &&
                    FindFunction(library, "BCryptVerifySignature", f.BCryptVerifySignature) &&
                    FindFunction(library, "BCryptDestroyKey", f.BCryptDestroyKey);
  return cng;
}

}  // namespace

CngFunctions* Cng() noexcept {
  static LoadedCng cng = LoadCng();
  return cng.is_complete ? &cng.functions : nullptr;
}

OwnedAlgorithmProvider OpenAlgorithmProvider(const wchar_t* algorithm) noexcept {
  BCRYPT_ALG_HANDLE provider = nullptr;
  if (Cng() == nullptr ||
      !BCRYPT_SUCCESS(Cng()->BCryptOpenAlgorithmProvider(&provider, algorithm, nullptr, 0))) {
    return nullptr;
  }
  return OwnedAlgorithmProvider(provider);
}

}  // namespace talvex
