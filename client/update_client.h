#pragma once

// One start of a client, as the public header describes it: the order of the calls, and what each one does.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "client/callbacks.h"
#include "client/client_lock.h"
#include "client/failure.h"
#include "client/handoff.h"
#include "client/settlement.h"
#include "client/staging.h"
#include "client/trusted_keys.h"

namespace talvex::client {

// The operations are those of talvex_update.h; each fills in `failure` when its result is a failure, with a
// message of one of its steps or
//   "No trusted key was given."
//   "talvex_settle has to succeed first."
//   "talvex_settle has succeeded already."
//   "talvex_check has to accept a release first."
//   "talvex_stage has to succeed first."
//   "A helper was started: the client has to exit."
//   "The helper did not hand over its ownership lock."
//   "The last update has to be confirmed first."
//   "An update has to be finished first, by a user who may write to the directory of Talvex."
//   "The manifest or its signature is larger than it may be."
//   "The release has no update helper of its own."
//   "This release could not start here before. A newer release is needed."
//   "This release could not be installed several times. It will be tried again later."
//   "The arguments for the restart could not be kept: " + Windows text
class UpdateClient {
 public:
  [[nodiscard]] talvex_result Open(const talvex_options& options, Failure& failure);
  [[nodiscard]] talvex_result Settle(std::int32_t& start, Failure& failure);
  [[nodiscard]] talvex_result Confirm(Failure& failure);
  [[nodiscard]] talvex_result Installed(talvex_release& release, Failure& failure) const;
  [[nodiscard]] talvex_result Check(std::span<const std::byte> manifest, std::span<const std::byte> signature,
                                    talvex_release* release, Failure& failure);
  [[nodiscard]] talvex_result NextFile(talvex_file& file, Failure& failure);
  [[nodiscard]] talvex_result Stage(Failure& failure);
  [[nodiscard]] talvex_result Install(const std::wstring& arguments, Failure& failure);
  [[nodiscard]] const std::wstring& Arguments() const noexcept { return handoff_.arguments; }
  void Close();

 private:
  // What talvex_settle has said; kExiting also once a helper was started.
  enum class State { kOpened, kPlaying, kRepairing, kExiting };

  [[nodiscard]] talvex_result TakeLock(Failure& failure);
  [[nodiscard]] talvex_result RequireSettled(Failure& failure) const;
  [[nodiscard]] talvex_result RequireOffer(Failure& failure) const;

  std::wstring client_root_;
  TrustedKeys keys_;
  std::uint64_t lowest_sequence_ = 0;
  Callbacks callbacks_;
  Handoff handoff_;
  State state_ = State::kOpened;
  ClientLock lock_;
  Settlement settlement_{client_root_, keys_, callbacks_};
  std::optional<Staging> staging_;
  std::optional<StagedRelease> staged_;
};

}  // namespace talvex::client
