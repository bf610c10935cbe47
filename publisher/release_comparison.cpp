#include "publisher/release_comparison.h"

#include <algorithm>
#include <limits>
#include <set>
#include <string>
#include <string_view>

#include "core/ascii_case.h"
#include "core/text_encoding.h"
#include "formats/apply_plan.h"
#include "formats/rollback_journal.h"
#include "formats/update_changes.h"
#include "formats/verified_cache.h"
#include "publisher/path_room.h"
#include "publisher/release_check.h"

namespace talvex {
namespace {

// A leap of the sequence is too large when fewer of its kind are left.
constexpr std::uint64_t kMinLeapsLeft = 1'024;
// Client directories longer than this are so rare that room for them may be given up without a word.
constexpr std::size_t kUsualClientDirectory = 100;

constexpr wchar_t kSameRelease[] = L"is this very release. Compare with an older one.";
constexpr wchar_t kTakeHigherSequence[] = L" Give the new release a higher sequence.";
constexpr wchar_t kSameName[] =
    L"has the same name, so players could not tell the two apart. Take a new name.";
constexpr wchar_t kLowerName[] =
    L"has a name that counts as a higher one, so players would take this release for an "
    L"older one. Take a higher name.";
constexpr wchar_t kLeap[] = L"is so much lower that few such leaps are left. Take the next number after it.";
constexpr wchar_t kCaseOnly[] =
    L": only the case of its letters changed, and players keep the old spelling. Take back "
    L"the change, or give it a really different name.";
constexpr wchar_t kFileBecameDirectory[] =
    L": a file in one of the releases and a directory in the other. No client could install it, because "
    L"directories stay. Take another name.";
constexpr wchar_t kMustCarry[] =
    L": in the old release, but not in the new one. The helper with the new key cannot retire it. Carry it "
    L"in this release, and drop it in the one after.";
constexpr wchar_t kLessRoom[] = L" characters, where the old release had room for ";
constexpr wchar_t kKeepsRetired[] = L"no client can remove the retired files, so they stay for ever. ";
constexpr wchar_t kMayKeepRetired[] =
    L"a client with all of its files damaged cannot remove the retired ones, so they stay there for ever. ";
constexpr wchar_t kTooLarge[] = L". Divide the change between two releases, or shorten paths.";

class Comparison {
 public:
  Comparison(const Manifest& new_manifest, const Manifest& old_manifest, KeyChange keys, Findings& findings)
      : new_(new_manifest),
        old_(old_manifest),
        keys_(keys),
        findings_(findings),
        old_name_(Utf8ToWide(old_manifest.release)) {}

  ReleaseComparison Run() {
    if (DigestsEqual(new_.digest, old_.digest)) {
      findings_.AddError(old_name_, kSameRelease);
      return {};
    }
    CheckNameAndSequence();
    CheckDirectories();
    CheckRoom();
    ReleaseComparison result;
    const UpdateChanges changes = CollectChanges(result);
    CheckRecords(changes, result);
    return result;
  }

 private:
  void CheckNameAndSequence();
  void CheckDirectories();
  void CheckRoom();
  UpdateChanges CollectChanges(ReleaseComparison& result);
  void CheckRecords(const UpdateChanges& changes, ReleaseComparison& result);

  const Manifest& new_;
  const Manifest& old_;
  const KeyChange keys_;
  Findings& findings_;
  const std::wstring old_name_;
};

// The number that `name` begins with is cut off it and returned as text without leading zeros.
std::string_view ConsumeNumber(std::string_view& name) {
  const std::size_t end = std::min(name.find_first_not_of("0123456789"), name.size());
  std::string_view number = name.substr(0, end);
  name.remove_prefix(end);
  number.remove_prefix(std::min(number.find_first_not_of('0'), number.size()));
  return number;
}

// "The plan takes 300000 bytes of 262144, and the journal 290000 of 262144", and the remedy.
std::wstring DescribeSize(const UpdateSize& size) {
  return L"The plan takes " + std::to_wstring(size.plan) + L" bytes of " +
         std::to_wstring(kApplyPlanSizeLimit) + L", and the journal " + std::to_wstring(size.journal) +
         L" of " + std::to_wstring(kJournalSizeLimit) + kTooLarge;
}

bool BeginsWithDigit(std::string_view text) {
  return !text.empty() && text.front() >= '0' && text.front() <= '9';
}

// Whether `left` is a lower version name than `right`: numbers count as numbers (2.9 before 2.10), and what
// follows a hyphen comes before the release itself (2.0-beta before 2.0).
bool IsLowerName(std::string_view left, std::string_view right) {
  while (!left.empty() && !right.empty()) {
    if (BeginsWithDigit(left) && BeginsWithDigit(right)) {
      const std::string_view left_number = ConsumeNumber(left);
      const std::string_view right_number = ConsumeNumber(right);
      if (left_number != right_number) {
        return left_number.size() != right_number.size() ? left_number.size() < right_number.size()
                                                         : left_number < right_number;
      }
    } else if (left.front() != right.front()) {
      return left.front() == '-' || (right.front() != '-' && left.front() < right.front());
    } else {
      left.remove_prefix(1);
      right.remove_prefix(1);
    }
  }
  return left.empty() ? !right.empty() && right.front() != '-' : left.front() == '-';
}

void Comparison::CheckNameAndSequence() {
  InstalledState installed;
  installed.present = true;
  installed.sequence = old_.sequence;
  installed.manifest_digest = old_.digest;
  UpdateError error;
  if (!CheckReleaseOrder(installed, new_, error)) {
    findings_.AddError(old_name_, error.Message() + kTakeHigherSequence);
  } else {
    const std::uint64_t leap = new_.sequence - old_.sequence;
    if (leap > (std::numeric_limits<std::uint64_t>::max() - old_.sequence) / kMinLeapsLeft) {
      findings_.AddWarning(old_name_ + L", sequence " + std::to_wstring(old_.sequence), kLeap);
    }
  }
  if (new_.release == old_.release) {
    findings_.AddWarning(old_name_, kSameName);
  } else if (IsLowerName(new_.release, old_.release)) {
    findings_.AddWarning(old_name_, kLowerName);
  }
}

void Comparison::CheckDirectories() {
  const auto check = [&](const Manifest& files, const Manifest& others) {
    const std::set<std::wstring> directories = DirectoriesOf(others);
    for (const ManifestEntry& entry : files.entries) {
      if (directories.contains(FoldAsciiCase(entry.normalised_path))) {
        findings_.AddError(old_name_, entry.normalised_path + kFileBecameDirectory);
      }
    }
  };
  check(new_, old_);
  check(old_, new_);
}

void Comparison::CheckRoom() {
  const std::size_t room = LongestClientDirectory(new_);
  const std::size_t old_room = LongestClientDirectory(old_);
  if (room < old_room && room < kUsualClientDirectory) {
    findings_.AddWarning(old_name_, L"the new release leaves the client directory's path " +
                                        std::to_wstring(room) + kLessRoom + std::to_wstring(old_room) +
                                        L". Shorten its longest paths.");
  }
}

// What a client with an undamaged old release puts into its plan.
UpdateChanges Comparison::CollectChanges(ReleaseComparison& result) {
  UpdateChanges changes;
  for (const ManifestEntry& entry : new_.entries) {
    const ManifestEntry* const before = FindManifestEntryIgnoringCase(old_, entry.normalised_path);
    if (before != nullptr && before->path != entry.path) {
      findings_.AddWarning(old_name_, before->normalised_path + kCaseOnly);
    }
    if (before != nullptr && before->size == entry.size && DigestsEqual(before->digest, entry.digest)) {
      continue;
    }
    ++(before == nullptr ? result.added : result.changed);
    result.download_size += entry.size;
    changes.installs.push_back(&entry);
  }
  for (const ManifestEntry& entry : old_.entries) {
    if (FindManifestEntryIgnoringCase(new_, entry.normalised_path) != nullptr) {
      continue;
    }
    ++result.retired;
    if (keys_ == KeyChange::kOtherKey) {
      findings_.AddError(old_name_, entry.normalised_path + kMustCarry);
    } else {
      changes.retires.push_back(&entry);
    }
  }
  if (changes.Empty()) {
    InstallSmallestFile(new_, changes);
    result.download_size = changes.installs.front()->size;
  }
  return changes;
}

// Clients keep retired files when the records of the update have no room for them.
void Comparison::CheckRecords(const UpdateChanges& changes, ReleaseComparison& result) {
  UpdateChanges worst = changes;
  worst.installs.clear();
  for (const ManifestEntry& entry : new_.entries) {
    worst.installs.push_back(&entry);
  }
  result.size = MeasureUpdate(new_.digest, changes);
  result.worst_size = MeasureUpdate(new_.digest, worst);
  if (!FitIntoOneUpdate(new_.digest, changes)) {
    findings_.AddWarning(old_name_, kKeepsRetired + DescribeSize(result.size));
  } else if (!FitIntoOneUpdate(new_.digest, worst)) {
    findings_.AddWarning(old_name_, kMayKeepRetired + DescribeSize(result.worst_size));
  }
}

}  // namespace

ReleaseComparison CompareManifests(const Manifest& new_manifest, const Manifest& old_manifest, KeyChange keys,
                                   Findings& findings) {
  return Comparison(new_manifest, old_manifest, keys, findings).Run();
}

}  // namespace talvex
