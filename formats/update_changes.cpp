#include "formats/update_changes.h"

#include <algorithm>
#include <string>

#include "core/update_error.h"
#include "formats/apply_plan.h"
#include "formats/rollback_journal.h"

namespace talvex {

void InstallSmallestFile(const Manifest& new_manifest, UpdateChanges& changes) {
  changes.installs.push_back(&*std::ranges::min_element(new_manifest.entries, {}, &ManifestEntry::size));
}

UpdateSize MeasureUpdate(const Sha256Digest& manifest_digest, const UpdateChanges& changes) {
  RollbackJournal journal;
  journal.manifest_digest = manifest_digest;
  for (const auto* const entries : {&changes.installs, &changes.retires}) {
    for (const ManifestEntry* const entry : *entries) {
      journal.entries.push_back({entries == &changes.retires, true, entry->path, entry->normalised_path});
    }
  }
  std::string text;
  UpdateError unreported;  // what the journal refuses for its size has that size
  static_cast<void>(FormatRollbackJournal(journal, text, unreported));
  return {FormatApplyPlan(manifest_digest, changes.installs, changes.retires).size(), text.size()};
}

bool FitIntoOneUpdate(const Sha256Digest& manifest_digest, const UpdateChanges& changes) {
  const UpdateSize size = MeasureUpdate(manifest_digest, changes);
  return size.plan <= kApplyPlanSizeLimit && size.journal <= kJournalSizeLimit;
}

void KeepRetiredFiles(const Manifest& new_manifest, UpdateChanges& changes) {
  changes.retires.clear();
  if (changes.Empty()) {
    InstallSmallestFile(new_manifest, changes);
  }
}

}  // namespace talvex
