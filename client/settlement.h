#pragma once

// What a start of the client finds of an earlier update, and what is done about it.
//
// An update is settled when its release was confirmed or rolled back. Until then `previous` holds the
// journal. A journal without a handoff is left by an update that never came to its restart, or whose client
// died: the helper was killed, the power failed, the restart failed. An intact release, whether the new or
// the previous one, needs no rollback.

#include <cstdint>
#include <string>

#include "client/callbacks.h"
#include "client/client_lock.h"
#include "client/failure.h"
#include "client/handoff.h"
#include "client/trusted_keys.h"
#include "core/sha256_digest.h"
#include "formats/manifest.h"

namespace talvex::client {

class Settlement {
 public:
  // The references have to outlive it.
  Settlement(const std::wstring& client_root, const TrustedKeys& keys, const Callbacks& callbacks)
      : client_root_(client_root), keys_(keys), callbacks_(callbacks) {}

  // Settles what is there, with the lock held. Returns one of TALVEX_START_...; after TALVEX_START_REPAIR
  // `failure` says why, with a message of VerifyInstalledRelease or
  //   TALVEX_E_DAMAGED "An earlier rollback did not come to its end."
  // Logged are also:
  //   "The last start of this release did not come to its end."
  //   "This release cannot start."
  //   "A file of an unfinished update was left behind."
  [[nodiscard]] std::int32_t Run(const Handoff& handoff, const ClientLock& lock, Failure& failure);

  // The release runs: removes the copies of the previous one. Messages: those of ClearPrevious.
  [[nodiscard]] bool Confirm(UpdateError& error) const;

  // Withdraws the note that this release was started: its process has ended in an orderly way.
  void WithdrawNote() const;

  // Whether copies are there that only a journal makes useful.
  [[nodiscard]] bool HasJournal() const;

  // Whether files may be of two releases: an update is not settled, or a repair has not succeeded yet.
  [[nodiscard]] bool IsUnsettled() const;

  // A helper is about to repair damaged files, and will clear the only copies: from now on the files are not
  // played before they were found whole.
  void BeginRepair() const;

  // Whether the release with this digest was installed and died at its start, and is still to be rolled back.
  [[nodiscard]] bool HasFailed(const Sha256Digest& manifest_digest) const;

 private:
  [[nodiscard]] std::int32_t SettleUpdate(const Handoff& handoff, const ClientLock& lock, Failure& failure);
  [[nodiscard]] bool IsHealthy(const Manifest& installed, UpdateError& error) const;
  [[nodiscard]] std::int32_t RollBack(const ClientLock& lock, bool is_whole, Failure& failure) const;
  [[nodiscard]] std::int32_t StartWithoutJournal(Failure& failure) const;
  void LiftMarkerOfInterrupted() const;
  [[nodiscard]] bool RemovePrevious(UpdateError& error) const;

  const std::wstring& client_root_;
  const TrustedKeys& keys_;
  const Callbacks& callbacks_;
};

}  // namespace talvex::client
