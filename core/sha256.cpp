#include "core/sha256.h"

#include "core/page_buffer.h"
#include "core/regular_file.h"
#include "core/whole_file.h"

namespace talvex {
namespace {

constexpr wchar_t kFileDigestFailed[] = L"Windows could not hash an update target.";
constexpr RegularFileMessages kHashMessages = {L"Could not open file for hashing",
                                               L"The update target is too large or is not a regular file."};

// Hashes an open file from its current position to its end.
bool HashOpenFile(HANDLE file, Sha256Digest& digest, HashProgressCallback progress, void* progress_context) {
  Sha256Hash hash;
  if (!hash.Prepare()) {
    return false;
  }
  const PageBuffer piece = AllocatePages(kFilePieceSize);
  if (piece == nullptr) {
    return false;
  }
  std::uint64_t total = 0;
  for (;;) {
    DWORD read = 0;
    if (!ReadFile(file, piece.get(), static_cast<DWORD>(kFilePieceSize), &read, nullptr)) {
      return false;
    }
    if (read == 0) {
      return hash.Finish(digest);
    }
    if (!hash.Add({piece.get(), read})) {
      return false;
    }
    total += read;
    if (progress != nullptr) {
      progress(total, progress_context);
    }
  }
}

}  // namespace

const wchar_t kDigestFailed[] = L"Windows could not calculate a SHA-256 digest.";

bool Sha256Hash::Prepare() {
  provider_ = OpenAlgorithmProvider(BCRYPT_SHA256_ALGORITHM);
  DWORD object_length = 0;
  ULONG written = 0;
  if (provider_ == nullptr ||
      !BCRYPT_SUCCESS(Cng()->BCryptGetProperty(provider_.get(), BCRYPT_OBJECT_LENGTH,
                                               reinterpret_cast<PUCHAR>(&object_length),
                                               sizeof(object_length), &written, 0))) {
    return false;
  }
  object_.resize(object_length);
  BCRYPT_HASH_HANDLE hash = nullptr;
  if (!BCRYPT_SUCCESS(
          Cng()->BCryptCreateHash(provider_.get(), &hash, object_.data(), object_length, nullptr, 0, 0))) {
    return false;
  }
  hash_.reset(hash);
  return true;
}

// CNG takes its input through a pointer to non-const and does not write there.
bool Sha256Hash::Add(std::span<const std::byte> bytes) {
  auto* const input = const_cast<PUCHAR>(reinterpret_cast<const UCHAR*>(bytes.data()));
  return BCRYPT_SUCCESS(Cng()->BCryptHashData(hash_.get(), input, static_cast<ULONG>(bytes.size()), 0));
}

bool Sha256Hash::Finish(Sha256Digest& digest) {
  Sha256Digest finished;
  if (!BCRYPT_SUCCESS(Cng()->BCryptFinishHash(hash_.get(), finished.bytes.data(),
                                              static_cast<ULONG>(finished.bytes.size()), 0))) {
    return false;
  }
  digest = finished;
  return true;
}

bool Sha256OfBuffer(std::span<const std::byte> bytes, Sha256Digest& digest, UpdateError& error) {
  digest = {};
  Sha256Hash hash;
  if (!hash.Prepare() || (!bytes.empty() && !hash.Add(bytes)) || !hash.Finish(digest)) {
    return Refuse(error, kDigestFailed);
  }
  return true;
}

OwnedHandle OpenFileForHashing(const std::wstring& path, std::uint64_t size_limit, std::uint64_t& size,
                               UpdateError& error) {
  return OpenRegularFileForRead(path, size_limit, kHashMessages, size, error);
}

bool Sha256OfOpenFile(HANDLE file, Sha256Digest& digest, UpdateError& error, HashProgressCallback progress,
                      void* progress_context) {
  digest = {};
  if (!HashOpenFile(file, digest, progress, progress_context)) {
    return Refuse(error, kFileDigestFailed);
  }
  return true;
}

bool Sha256OfFile(const std::wstring& path, std::uint64_t size_limit, Sha256Digest& digest,
                  std::uint64_t& size, UpdateError& error, HashProgressCallback progress,
                  void* progress_context) {
  digest = {};
  const OwnedHandle file = OpenFileForHashing(path, size_limit, size, error);
  return file.IsValid() && Sha256OfOpenFile(file.Get(), digest, error, progress, progress_context);
}

}  // namespace talvex
