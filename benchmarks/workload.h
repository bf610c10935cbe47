#pragma once

// A client directory of any size, ready to be updated, and the baseline: the minimum work of an update.

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "formats/manifest.h"
#include "storage/client_root.h"
#include "storage/update_layout.h"
#include "tests/support/scratch_directory.h"

namespace talvex::bench {

struct WorkloadSize {
  std::size_t files;
  std::uint64_t bytes_per_file;
};

enum class Baseline { kBare, kWithChecks };

// `helper` becomes the release's TalvexUpdateHelper.exe, `client` its Talvex.exe; both are in place already.
class Workload {
 public:
  Workload(const WorkloadSize& size, const std::wstring& helper, const std::wstring& client);
  Workload(const Workload&) = delete;
  Workload& operator=(const Workload&) = delete;
  ~Workload();

  // The operands of --apply-plan after the mode word.
  [[nodiscard]] std::vector<std::wstring> ApplyOperands(HANDLE parent, HANDLE lock) const;

  // Seconds for the baseline: every byte that an update has to hash, hashed by a bare loop before and after
  // every file was replaced and flushed; with kWithChecks also the calls that check each file and its paths.
  // Uses the directory up, as an update does.
  [[nodiscard]] double MeasureBaseline(Baseline baseline) const;

 private:
  test::ScratchDirectory scratch_;
  std::wstring root_ = scratch_ / L"client";
  std::wstring stage_;
  std::wstring copies_ = JoinPath(WorkDirectory(root_), L"baseline");
  Manifest manifest_;
  std::string plan_;
  std::vector<const ManifestEntry*> install_;
};

// ReadFile and the CNG calls in a loop over one buffer, with nothing around them.
[[nodiscard]] bool BareHash(const std::wstring& path);

[[nodiscard]] double Seconds();  // since an arbitrary point in time

}  // namespace talvex::bench
