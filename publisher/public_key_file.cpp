#include "publisher/public_key_file.h"

#include <cstdint>

#include "core/public_key_pem.h"
#include "formats/text_lines.h"

namespace talvex {
namespace {

constexpr std::uint32_t kPemSizeLimit = 16'384;  // bytes

}  // namespace

bool LoadPublicKey(const std::wstring& path, ByteBuffer& key_blob, UpdateError& error) {
  key_blob.clear();
  ByteBuffer pem;
  if (!ReadWholeFile(path, kPemSizeLimit, pem, error)) {
    return false;
  }
  return DecodePublicKeyPem(AsText(pem), key_blob, error);
}

}  // namespace talvex
