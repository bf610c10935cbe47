#pragma once

// What the library tells the game while a call runs.

#include <algorithm>
#include <cstdint>
#include <string>

#include "client/talvex_update.h"

namespace talvex::client {

struct Callbacks {
  void* context = nullptr;
  decltype(talvex_options::log) log = nullptr;
  decltype(talvex_options::progress) progress = nullptr;
  decltype(talvex_options::is_healthy) is_healthy = nullptr;

  void Log(const std::wstring& line) const {
    if (log != nullptr) {
      log(context, line.c_str());
    }
  }
  [[nodiscard]] bool IsHealthy() const { return is_healthy == nullptr || is_healthy(context) != 0; }
};

// Thrown out of the hashing of a file when the game cancels: every owner on the way closes what it holds, and
// the boundary turns it into TALVEX_E_CANCELLED. Hashing itself has no way to be told to stop.
class Cancelled {};

// The progress of one phase over files of `total` bytes.
class PhaseProgress {
 public:
  PhaseProgress(const Callbacks& callbacks, std::int32_t phase, std::uint64_t total)
      : callbacks_(callbacks), phase_(phase), total_(total) {}

  // For Sha256OfFile and VerifyManagedFile, whose context is the PhaseProgress.
  static void OnHashed(std::uint64_t bytes_hashed, void* context) {
    static_cast<PhaseProgress*>(context)->Report(bytes_hashed);
  }
  // A file of `size` bytes is done, whether it had to be hashed or not.
  void FinishFile(std::uint64_t size) {
    before_ += size;
    Report(0);
  }

 private:
  void Report(std::uint64_t of_this_file) const {
    const std::uint64_t done = std::min(before_ + of_this_file, total_);  // retired files are not counted
    if (callbacks_.progress != nullptr &&
        callbacks_.progress(callbacks_.context, phase_, done, total_) == 0) {
      throw Cancelled();
    }
  }

  const Callbacks& callbacks_;
  const std::int32_t phase_;
  const std::uint64_t total_;
  std::uint64_t before_ = 0;
};

}  // namespace talvex::client
