#include "publisher/key_search.h"

#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <functional>
#include <string_view>
#include <utility>

#include "core/manifest_signature.h"
#include "core/public_key_pem.h"
#include "formats/text_lines.h"

namespace talvex {
namespace {

// Calls `visit` with the position of every occurrence of `pattern` in `text`.
template <typename Visit>
void ForEachMatch(std::string_view text, std::string_view pattern, Visit visit) {
  const char* const end = text.data() + text.size();
  const std::boyer_moore_horspool_searcher searcher(pattern.data(), pattern.data() + pattern.size());
  for (const char* from = text.data();; ++from) {
    from = std::search(from, end, searcher);
    if (from == end) {
      return;
    }
    visit(static_cast<std::size_t>(from - text.data()));
  }
}

// Whether `text` begins with `base64`, line ends in between ignored.
bool ContinuesWith(std::string_view text, std::string_view base64) {
  for (const char byte : text) {
    if (base64.empty()) {
      break;
    }
    if (byte == base64.front()) {
      base64.remove_prefix(1);
    } else if (byte != '\r' && byte != '\n') {
      return false;
    }
  }
  return base64.empty();
}

}  // namespace

std::vector<std::span<const std::byte>> FindKeyBlobs(std::span<const std::byte> bytes, const PublicKey& key) {
  std::vector<std::span<const std::byte>> blobs;
  const std::string_view header = AsText(key.blob).substr(0, sizeof(BCRYPT_RSAKEY_BLOB));
  ForEachMatch(AsText(bytes), header, [&](std::size_t position) {
    if (bytes.size() - position >= key.blob.size()) {
      blobs.push_back(bytes.subspan(position, key.blob.size()));
    }
  });
  return blobs;
}

std::vector<ByteBuffer> FindPublicKeys(std::span<const std::byte> bytes, const PublicKey& like) {
  std::vector<ByteBuffer> keys;
  const auto add = [&](ByteBuffer key) {
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
      keys.push_back(std::move(key));
    }
  };
  for (const std::span<const std::byte> blob : FindKeyBlobs(bytes, like)) {
    add({blob.begin(), blob.end()});
  }
  const std::string_view text = AsText(bytes);
  ForEachMatch(text, kPublicKeyHeader, [&](std::size_t position) {
    const std::string_view rest = text.substr(position, kPemSizeLimit);
    const std::size_t footer = rest.find(kPublicKeyFooter);
    ByteBuffer key;
    UpdateError unreported;
    if (footer != std::string_view::npos &&
        DecodePublicKeyPem(rest.substr(0, footer + kPublicKeyFooter.size()), key, unreported) &&
        IsRsa3072PublicKey(key)) {
      add(std::move(key));
    }
  });
  return keys;
}

bool HoldsKey(std::span<const std::byte> bytes, const PublicKey& key) {
  const std::string_view text = AsText(bytes);
  bool found = false;
  ForEachMatch(text, AsText(key.blob).substr(key.blob.size() - kModulusLength),
               [&](std::size_t) { found = true; });
  const std::string_view base64 = key.base64;
  ForEachMatch(text, base64.substr(0, kPemLineLength),
               [&](std::size_t position) { found = found || ContinuesWith(text.substr(position), base64); });
  return found;
}

}  // namespace talvex
