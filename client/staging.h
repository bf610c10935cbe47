#pragma once

// Lays out what the helper is going to install, as the helper expects it. In .talvex-update\<digest>:
//
//   manifest.txt, manifest.sig     as downloaded, byte for byte
//   apply.plan                     what to install and what to delete
//   files                          the files that the plan installs

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "client/callbacks.h"
#include "client/failure.h"
#include "client/helper_start.h"
#include "client/installed_release.h"
#include "core/whole_file.h"
#include "formats/manifest.h"
#include "formats/update_changes.h"

namespace talvex::client {

// A release that was downloaded and may be installed here.
struct OfferedRelease {
  ByteBuffer manifest_bytes;
  ByteBuffer signature;
  Manifest manifest;
  std::size_t key = 0;  // index of the key that has signed it
};

// A file that has to be downloaded.
struct MissingFile {
  const ManifestEntry* entry = nullptr;
  std::wstring destination;
  std::uint64_t present = 0;  // bytes that are there already
};

class Staging {
 public:
  // `client_root` and `callbacks` have to outlive it.
  Staging(const std::wstring& client_root, const Callbacks& callbacks, OfferedRelease offer,
          InstalledRelease installed)
      : client_root_(client_root),
        callbacks_(callbacks),
        offer_(std::move(offer)),
        installed_(std::move(installed)) {}

  // The next file to download; TALVEX_DONE: no more, and the next call starts over. The first call compares
  // the client directory with the release and makes room. Failures:
  //   TALVEX_E_SPACE             "There is not enough room on the disk: " + N + " MiB more are needed."
  //   TALVEX_E_SYSTEM            those of the file operations
  [[nodiscard]] talvex_result NextFile(MissingFile& file, Failure& failure);

  // Proves what was downloaded and writes the plan. TALVEX_DONE: the release is installed, whole and
  // recorded. Afterwards NextFile starts over. Failures:
  //   TALVEX_E_FILE              path + ": " + a message of IsFileOfRelease
  //   TALVEX_E_SYSTEM            those of the file operations
  [[nodiscard]] talvex_result Stage(StagedRelease& staged, Failure& failure);

  [[nodiscard]] const Manifest& Release() const noexcept { return offer_.manifest; }

 private:
  [[nodiscard]] talvex_result Compare(Failure& failure);
  void FindChanges();
  [[nodiscard]] bool MayRetire(const ManifestEntry& entry, PhaseProgress& progress) const;
  [[nodiscard]] talvex_result Prepare(Failure& failure);
  [[nodiscard]] talvex_result CheckFreeSpace(Failure& failure) const;
  [[nodiscard]] bool MakeStageDirectory(const std::wstring& relative_path, UpdateError& error);
  [[nodiscard]] bool LocateInStage(const ManifestEntry& entry, std::wstring& path, UpdateError& error);
  [[nodiscard]] talvex_result ProveFiles(Failure& failure);
  [[nodiscard]] talvex_result WritePlan(StagedRelease& staged, Failure& failure);

  const std::wstring& client_root_;
  const Callbacks& callbacks_;
  const OfferedRelease offer_;
  const InstalledRelease installed_;

  // What turns the client directory into the release.
  bool is_compared_ = false;
  UpdateChanges changes_;
  std::wstring stage_root_;
  std::size_t next_ = 0;
};

}  // namespace talvex::client
