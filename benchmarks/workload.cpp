#include "benchmarks/workload.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>

#include "core/cng.h"
#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "core/sha256.h"
#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/apply_plan.h"
#include "formats/text_lines.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"
#include "tests/support/test_release.h"

namespace talvex::bench {
namespace {

[[noreturn]] void Abandon(const char* step) {
  std::fprintf(stderr, "The benchmark could not go on: %s (Windows error %lu)\n", step, GetLastError());
  ExitProcess(1);
}

void WriteRandomFile(const std::wstring& path, std::uint64_t size, std::uint32_t seed) {
  test::WriteTestFile(path, "");
  const OwnedHandle file(
      CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  std::vector<std::uint32_t> piece(kFilePieceSize / sizeof(std::uint32_t));
  while (size != 0) {
    for (std::uint32_t& word : piece) {
      word = seed = seed * 1'664'525 + 1'013'904'223;
    }
    const auto length = static_cast<DWORD>(std::min<std::uint64_t>(size, kFilePieceSize));
    DWORD written = 0;
    if (!WriteFile(file.Get(), piece.data(), length, &written, nullptr) || written != length) {
      Abandon("writing a file");
    }
    size -= length;
  }
  FlushFileBuffers(file.Get());  // later measurements must not include these writes
}

ManifestEntry EntryFor(const std::wstring& path, const std::string& relative_path) {
  ManifestEntry entry;
  UpdateError error;
  if (!Sha256OfFile(path, kManagedFileSizeLimit, entry.digest, entry.size, error)) {
    Abandon("hashing a file");
  }
  entry.path = relative_path;
  entry.normalised_path = Utf8ToWide(relative_path);
  std::replace(entry.normalised_path.begin(), entry.normalised_path.end(), L'/', L'\\');
  return entry;
}

// The calls with which an update checks a file two folders deep, and every path that leads to it, anew before
// each use. None may be left out: a link could have been put there since the last check. The numbers are
// those of client_root.cpp's operations: two paths resolved and walked for staging, two directories ensured
// for preparation and two for installation, and the path walked again for the final verification.
void MakeCheckCalls(const std::wstring& folder, const std::wstring& path) {
  constexpr int kResolutions = 27;
  constexpr int kLooks = 34;
  constexpr int kDirectories = 8;
  constexpr int kFiles = 4;
  std::array<wchar_t, MAX_PATH> buffer{};
  for (int i = 0; i < kResolutions; ++i) {
    GetFullPathNameW(path.c_str(), MAX_PATH, buffer.data(), nullptr);
  }
  for (int i = 0; i < kLooks; ++i) {
    GetFileAttributesW(path.c_str());
  }
  for (int i = 0; i < kDirectories; ++i) {
    CreateDirectoryW(folder.c_str(), nullptr);  // exists: checked, not created
  }
  const OwnedHandle file(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                     OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  FileInformation information;
  for (int i = 0; i < kFiles; ++i) {
    if (!GetFileInformation(file.Get(), information)) {
      Abandon("GetFileInformation");
    }
  }
}

}  // namespace

Workload::Workload(const WorkloadSize& size, const std::wstring& helper, const std::wstring& client) {
  const std::wstring staging = JoinPath(WorkDirectory(root_), L"staging");
  manifest_.release = "bench";
  manifest_.sequence = 1;
  test::WriteTestFile(JoinPath(root_, kHelperFileName), test::ReadTestFile(helper));
  test::WriteTestFile(ClientProgramPath(root_), test::ReadTestFile(client));
  for (std::size_t i = 0; i < size.files; ++i) {
    const std::string name = "data/" + std::to_string(i % 16) + "/" + std::to_string(i) + ".bin";
    const std::wstring relative = Utf8ToWide(name);
    test::WriteTestFile(JoinPath(root_, relative), "old");
    const std::wstring staged = JoinPath(FilesDirectory(staging), relative);
    WriteRandomFile(staged, size.bytes_per_file, static_cast<std::uint32_t>(i));
    manifest_.entries.push_back(EntryFor(staged, name));
  }
  for (const wchar_t* const program : {kClientFileName, kHelperFileName}) {
    manifest_.entries.push_back(EntryFor(JoinPath(root_, program), WideToUtf8(program)));
  }
  const std::string text = FormatManifest(manifest_);
  UpdateError error;
  if (!ParseManifest(AsBytes(text), manifest_, error)) {
    Abandon(WideToUtf8(error.Message()).c_str());
  }
  for (std::size_t i = 0; i < size.files; ++i) {
    install_.push_back(&manifest_.entries[i]);
  }
  plan_ = FormatApplyPlan(manifest_.digest, install_, {});
  const SignedPairPaths pair = SignedPairIn(staging);
  test::WriteTestFile(pair.manifest, text);
  test::WriteTestFile(pair.signature, test::SignWithKey(text));
  test::WriteTestFile(ApplyPlanPath(staging), plan_);
  stage_ = StageRoot(root_, manifest_.digest);
  if (!MoveFileW(staging.c_str(), stage_.c_str())) {
    Abandon("naming the staging directory");
  }
}

std::vector<std::wstring> Workload::ApplyOperands(HANDLE parent, HANDLE lock) const {
  const auto value = [](HANDLE handle) { return std::to_wstring(reinterpret_cast<std::uintptr_t>(handle)); };
  return {
      root_,      stage_, value(parent), DigestToHex(manifest_.digest), Utf8ToWide(test::HexDigestOf(plan_)),
      value(lock)};
}

Workload::~Workload() {
  // The client that an update has started exits by itself soon.
  for (int i = 0; i < 100 && !DeleteFileW(ClientProgramPath(root_).c_str()); ++i) {
    Sleep(50);
  }
}

double Workload::MeasureBaseline(Baseline baseline) const {
  const std::wstring staged_files = FilesDirectory(stage_);
  test::MakeTestDirectory(copies_);
  const double start = Seconds();
  for (const ManifestEntry* const entry : install_) {
    if (!BareHash(JoinPath(staged_files, entry->normalised_path))) {
      Abandon("hashing a staged file");
    }
  }
  for (std::size_t i = 0; i < install_.size(); ++i) {
    const std::wstring target = JoinPath(root_, install_[i]->normalised_path);
    const std::wstring staged = JoinPath(staged_files, install_[i]->normalised_path);
    const std::wstring copy = JoinPath(copies_, std::to_wstring(i));
    if (baseline == Baseline::kWithChecks) {
      MakeCheckCalls(std::wstring(ParentOfRelativePath(target)), target);
    }
    if (!ReplaceFileW(target.c_str(), staged.c_str(), copy.c_str(), REPLACEFILE_WRITE_THROUGH, nullptr,
                      nullptr)) {
      Abandon("replacing a file");
    }
    const OwnedHandle file(CreateFileW(target.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                       OPEN_EXISTING, FILE_FLAG_WRITE_THROUGH, nullptr));
    if (!FlushFileBuffers(file.Get())) {
      Abandon("flushing a file");
    }
  }
  for (const ManifestEntry& entry : manifest_.entries) {
    if (!BareHash(JoinPath(root_, entry.normalised_path))) {
      Abandon("hashing an installed file");
    }
  }
  return Seconds() - start;
}

bool BareHash(const std::wstring& path) {
  static std::vector<UCHAR> buffer(kFilePieceSize);
  const OwnedHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                     FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  const OwnedAlgorithmProvider provider = OpenAlgorithmProvider(BCRYPT_SHA256_ALGORITHM);
  BCRYPT_HASH_HANDLE created = nullptr;
  if (provider == nullptr ||
      !BCRYPT_SUCCESS(Cng()->BCryptCreateHash(provider.get(), &created, nullptr, 0, nullptr, 0, 0))) {
    return false;
  }
  const OwnedHash hash(created);
  Sha256Digest digest;
  DWORD read = 0;
  bool hashed = false;
  do {
    hashed = ReadFile(file.Get(), buffer.data(), static_cast<DWORD>(buffer.size()), &read, nullptr) != 0 &&
             BCRYPT_SUCCESS(Cng()->BCryptHashData(hash.get(), buffer.data(), read, 0));
  } while (hashed && read != 0);
  return hashed && BCRYPT_SUCCESS(Cng()->BCryptFinishHash(hash.get(), digest.bytes.data(),
                                                          static_cast<ULONG>(digest.bytes.size()), 0));
}

double Seconds() {
  LARGE_INTEGER count{};
  LARGE_INTEGER frequency{};
  QueryPerformanceCounter(&count);
  QueryPerformanceFrequency(&frequency);
  return static_cast<double>(count.QuadPart) / static_cast<double>(frequency.QuadPart);
}

}  // namespace talvex::bench
