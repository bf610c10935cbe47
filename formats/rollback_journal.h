#pragma once

// The rollback journal: the one record with which a later run of the helper can undo an update. A journal on
// disk promises that everything it refers to has been saved. It is not signed itself; each row is trusted
// only after it was found in a signed manifest.
//
//   TALVEX-ROLLBACK-V1
//   manifest-sha256           TAB  64 lowercase hexadecimal characters
//   previous-state            TAB  0 or 1
//   previous-cache-manifest   TAB  0 or 1
//   previous-cache-signature  TAB  0 or 1
//   file or delete  TAB  0 or 1  TAB  relative path        1 to 2,048 such lines
//
// Row order is the order in which the update makes its changes; restoration walks it backwards.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/sha256_digest.h"
#include "core/update_error.h"
#include "formats/manifest.h"

namespace talvex {

inline constexpr std::size_t kJournalEntryLimit = 2'048;
inline constexpr std::uint32_t kJournalSizeLimit = 262'144;  // bytes

struct RollbackEntry {
  bool retired = false;  // the update deletes the file; otherwise it installs it
  bool existed = false;  // the file was there when rollback was prepared
  std::string path;      // as in the manifest
  std::wstring wide_path;
};

// No two entries share a path, case ignored.
struct RollbackJournal {
  Sha256Digest manifest_digest;  // of the release being installed
  // Whether the file existed before the update and so has a recovery copy.
  bool previous_state = false;
  bool previous_cache_manifest = false;
  bool previous_cache_signature = false;
  std::vector<RollbackEntry> entries;
};

// Parses the text of a journal file. A failure may leave `journal` partly filled. Messages: those of
// ValidateRelativePath, and
//   "The update rollback journal has an invalid encoding."
//   "The update rollback journal is incomplete."
//   "The update rollback journal has an invalid format."        also when there is no row
//   "The update rollback journal has an invalid manifest digest."
//   "The update rollback journal has invalid previous-state flags."
//   "The update rollback journal has an invalid file row."
//   "The update rollback journal contains a duplicate file."
//   "The update rollback journal has an invalid file count."
[[nodiscard]] bool ParseRollbackJournalText(std::string_view text, RollbackJournal& journal,
                                            UpdateError& error);

// Sets `text` to the file text of `journal`, after checking that the parser will accept it; after a failure
// `text` must not be used, but its size is right if it is only too large. Messages: those of
// ValidateRelativePath, and
//   "The update rollback journal has an invalid file count."
//   "The update rollback journal contains an unsafe file."      the two forms of an entry's path differ
//   "The update rollback journal contains a duplicate file."
//   "The update rollback journal is too large."
[[nodiscard]] bool FormatRollbackJournal(const RollbackJournal& journal, std::string& text,
                                         UpdateError& error);

// Writes the journal to `path` through a temporary file. A failure leaves an earlier journal in place.
// Messages: those of FormatRollbackJournal and WriteNewFile, and
//   "Could not save the update rollback journal: " + Windows text
[[nodiscard]] bool SaveRollbackJournal(const std::wstring& path, const RollbackJournal& journal,
                                       UpdateError& error);

// Reads the journal at `path`. A failure may leave `journal` partly filled. Messages: those of ReadWholeFile
// and ParseRollbackJournalText.
[[nodiscard]] bool ParseRollbackJournal(const std::wstring& path, RollbackJournal& journal,
                                        UpdateError& error);

// Reads the manifest that the update kept beside its journal in `previous_directory`, and verifies its
// signature with `key_blob` and that it is the one that `journal` belongs to. Messages: those of
// LoadSignedManifest, and
//   "The rollback recovery manifest is invalid."
[[nodiscard]] bool VerifyRecoveryManifest(const std::wstring& previous_directory,
                                          const RollbackJournal& journal, std::span<const std::byte> key_blob,
                                          Manifest& recovery_manifest, UpdateError& error);

}  // namespace talvex
