#include "client/update_client.h"

#include <windows.h>

#include <utility>

#include "client/client_directory.h"
#include "client/helper_place.h"
#include "client/install_attempts.h"
#include "client/text_buffer.h"
#include "client/work_directory.h"
#include "core/memory_shortage.h"
#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/failure_marker.h"
#include "formats/text_lines.h"
#include "storage/update_layout.h"

namespace talvex::client {
namespace {

constexpr DWORD kClosingWaitMs = 2'000;      // for a client or helper that is just exiting
constexpr DWORD kHelperExitWaitMs = 10'000;  // for the helper that has started this process

// Attempts at a repair before a previous directory that the helper may not be able to clear is cleared here.
constexpr std::uint64_t kFreeClearings = 2;

constexpr wchar_t kNoKeys[] = L"No trusted key was given.";
constexpr wchar_t kNotSettled[] = L"talvex_settle has to succeed first.";
constexpr wchar_t kExiting[] = L"A helper was started: the client has to exit.";
constexpr wchar_t kSettledAlready[] = L"talvex_settle has succeeded already.";
constexpr wchar_t kNothingOffered[] = L"talvex_check has to accept a release first.";
constexpr wchar_t kNothingStaged[] = L"talvex_stage has to succeed first.";
constexpr wchar_t kUnsettled[] = L"The last update has to be confirmed first.";
constexpr wchar_t kUnsettledForOthers[] =
    L"An update has to be finished first, by a user who may write to the directory of Talvex.";
constexpr wchar_t kHelperStays[] = L"The helper did not hand over its ownership lock.";
constexpr wchar_t kFailedBefore[] = L"This release could not start here before. A newer release is needed.";
constexpr wchar_t kTooLarge[] = L"The manifest or its signature is larger than it may be.";
constexpr wchar_t kNoHelper[] = L"The release has no update helper of its own.";
constexpr wchar_t kPostponed[] =
    L"This release could not be installed several times. It will be tried again later.";
constexpr wchar_t kNoArguments[] = L"The arguments for the restart could not be kept";

void Describe(const Manifest& manifest, talvex_release& release) {
  release.sequence = manifest.sequence;
  CopyText(Utf8ToWide(manifest.release), release.name);
  CopyText(DigestToHex(manifest.digest), release.digest);
}

}  // namespace

talvex_result UpdateClient::Open(const talvex_options& options, Failure& failure) {
  callbacks_ = {options.context, options.log, options.progress, options.is_healthy};
  lowest_sequence_ = options.lowest_sequence;
  if (options.keys == nullptr || options.key_count == 0) {
    return Fail(failure, TALVEX_E_ARGUMENT, kNoKeys);
  }
  for (const talvex_key& key : std::span(options.keys, options.key_count)) {
    if (!AddTrustedKeys({static_cast<const std::byte*>(key.bytes), key.bytes == nullptr ? 0 : key.size},
                        keys_, failure.error)) {
      return Fail(failure, TALVEX_E_KEY);
    }
  }
  if (!FindClientRoot(options.client_directory, client_root_, failure.error)) {
    return Fail(failure, TALVEX_E_DIRECTORY);
  }
  // Whoever starts a client can set its environment; without a journal there is nothing to hand off.
  handoff_ = TakeHandoff(settlement_.HasJournal());
  return TALVEX_OK;
}

talvex_result UpdateClient::Settle(std::int32_t& start, Failure& failure) {
  if (state_ != State::kOpened) {
    return Fail(failure, TALVEX_E_ORDER, state_ == State::kExiting ? kExiting : kSettledAlready);
  }
  if (const talvex_result result = TakeLock(failure); result != TALVEX_OK) {
    // Files that are half of one release and half of another must not be played with.
    return result == TALVEX_E_NOT_WRITABLE && settlement_.IsUnsettled()
               ? Fail(failure, TALVEX_E_UNSETTLED, kUnsettledForOthers)
               : result;
  }
  start = settlement_.Run(handoff_, lock_, failure);
  state_ = start == TALVEX_START_GAME     ? State::kPlaying
           : start == TALVEX_START_REPAIR ? State::kRepairing
                                          : State::kExiting;
  return TALVEX_OK;
}

// The helper exits right after it has handed over.
talvex_result UpdateClient::TakeLock(Failure& failure) {
  if (handoff_.present && !WaitForHelper(handoff_, callbacks_)) {
    return Fail(failure, TALVEX_E_ALREADY_RUNNING, kHelperStays);
  }
  return lock_.Take(client_root_, handoff_.present ? kHelperExitWaitMs : kClosingWaitMs, callbacks_, failure);
}

talvex_result UpdateClient::RequireSettled(Failure& failure) const {
  switch (state_) {
    case State::kOpened:
      return Fail(failure, TALVEX_E_ORDER, kNotSettled);
    case State::kExiting:
      return Fail(failure, TALVEX_E_ORDER, kExiting);
    default:
      return TALVEX_OK;
  }
}

talvex_result UpdateClient::RequireOffer(Failure& failure) const {
  const talvex_result result = RequireSettled(failure);
  return result != TALVEX_OK || staging_ ? result : Fail(failure, TALVEX_E_ORDER, kNothingOffered);
}

talvex_result UpdateClient::Confirm(Failure& failure) {
  if (const talvex_result result = RequireSettled(failure); result != TALVEX_OK) {
    return result;
  }
  return state_ != State::kPlaying || settlement_.Confirm(failure.error) ? TALVEX_OK
                                                                         : Fail(failure, TALVEX_E_SYSTEM);
}

talvex_result UpdateClient::Installed(talvex_release& release, Failure& failure) const {
  if (const talvex_result result = RequireSettled(failure); result != TALVEX_OK) {
    return result;
  }
  const InstalledRelease installed = LoadInstalledRelease(client_root_, keys_);
  if (!installed.is_proven) {
    return TALVEX_DONE;
  }
  Describe(installed.manifest, release);
  return TALVEX_OK;
}

talvex_result UpdateClient::Check(std::span<const std::byte> manifest, std::span<const std::byte> signature,
                                  talvex_release* release, Failure& failure) {
  if (const talvex_result result = RequireSettled(failure); result != TALVEX_OK) {
    return result;
  }
  staging_.reset();
  staged_.reset();
  OfferedRelease offer;
  if (manifest.size() > kManifestSizeLimit || signature.size() > kSignatureSizeLimit) {
    return Fail(failure, TALVEX_E_UNSIGNED, kTooLarge);
  }
  offer.key = FindSigningKey(keys_, manifest, signature, offer.manifest, failure.error);
  if (offer.key == keys_.size()) {
    return Fail(failure, TALVEX_E_UNSIGNED);
  }
  if (release != nullptr) {
    Describe(offer.manifest, *release);
  }
  if (FindManifestEntry(offer.manifest, kHelperFileName) == nullptr) {
    return Fail(failure, TALVEX_E_NO_HELPER, kNoHelper);
  }
  InstalledRelease installed = LoadInstalledRelease(client_root_, keys_);
  if (!MayFollow(installed, lowest_sequence_, offer.manifest, failure.error)) {
    return Fail(failure, TALVEX_E_OLDER);
  }
  // (While the game plays, the running release may still be about to fail.)
  const bool has_failed = state_ == State::kRepairing && settlement_.HasFailed(offer.manifest.digest);
  if (has_failed || IsMarkedAsFailed(client_root_, offer.manifest.digest)) {
    return Fail(failure, TALVEX_E_FAILED_BEFORE, kFailedBefore);
  }
  if (state_ == State::kPlaying && SecondsUntilNextAttempt(client_root_, offer.manifest.digest) != 0) {
    return Fail(failure, TALVEX_E_POSTPONED, kPostponed);
  }
  const bool is_installed =
      installed.is_proven && DigestsEqual(installed.manifest.digest, offer.manifest.digest);
  offer.manifest_bytes.assign(manifest.begin(), manifest.end());
  offer.signature.assign(signature.begin(), signature.end());
  staging_.emplace(client_root_, callbacks_, std::move(offer), std::move(installed));
  return is_installed ? TALVEX_DONE : TALVEX_OK;
}

talvex_result UpdateClient::NextFile(talvex_file& file, Failure& failure) {
  if (const talvex_result result = RequireOffer(failure); result != TALVEX_OK) {
    return result;
  }
  staged_.reset();
  MissingFile missing;
  const talvex_result result = staging_->NextFile(missing, failure);
  if (result != TALVEX_OK) {
    return result;
  }
  file.size = missing.entry->size;
  file.present = missing.present;
  CopyText(Utf8ToWide(missing.entry->path), file.path);
  CopyText(DigestToHex(missing.entry->digest), file.sha256);
  CopyText(missing.destination, file.destination);
  return TALVEX_OK;
}

talvex_result UpdateClient::Stage(Failure& failure) {
  if (const talvex_result result = RequireOffer(failure); result != TALVEX_OK) {
    return result;
  }
  staged_.reset();
  StagedRelease staged;
  const talvex_result result = staging_->Stage(staged, failure);
  if (result == TALVEX_OK) {
    callbacks_.Log(L"staged release=" + Utf8ToWide(staging_->Release().release) + L" sequence=" +
                   std::to_wstring(staging_->Release().sequence));
    staged_ = std::move(staged);
  }
  return result;
}

talvex_result UpdateClient::Install(const std::wstring& arguments, Failure& failure) {
  if (const talvex_result result = RequireSettled(failure); result != TALVEX_OK) {
    return result;
  }
  if (!staged_) {
    return Fail(failure, TALVEX_E_ORDER, kNothingStaged);
  }
  // The helper clears the only copies before it installs anything. In a repair that is meant, but not before
  // the helper has proved the new release; only if that has failed twice, something may be in its way.
  const Sha256Digest& digest = staging_->Release().digest;
  if (settlement_.HasJournal() && state_ == State::kPlaying) {
    return Fail(failure, TALVEX_E_UNSETTLED, kUnsettled);
  }
  if (state_ == State::kRepairing) {
    settlement_.BeginRepair();
  }
  const bool helper_clears = settlement_.HasJournal() && CountAttempts(client_root_, digest) < kFreeClearings;
  if (!helper_clears && !ClearPrevious(client_root_, failure.error)) {
    return Fail(failure, TALVEX_E_SYSTEM);
  }
  const ArgumentsForRestart kept(arguments);
  if (!kept.IsSet()) {
    return FailWithWindowsError(failure, TALVEX_E_SYSTEM, kNoArguments, GetLastError());
  }
  RemoveOldHelpers(client_root_);
  if (const talvex_result result = StartUpdate(client_root_, staging_->Release(), *staged_, lock_, failure);
      result != TALVEX_OK) {
    return result;
  }
  state_ = State::kExiting;
  // Whatever fails now, the helper runs.
  static_cast<void>(RunCatchingBadAlloc([&] {
    RecordAttempt(client_root_, digest);
    callbacks_.Log(L"update started");
    return true;
  }));
  return TALVEX_OK;
}

void UpdateClient::Close() {
  if (state_ == State::kPlaying) {
    settlement_.WithdrawNote();
  }
}

}  // namespace talvex::client
