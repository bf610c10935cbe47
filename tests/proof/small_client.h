#pragma once

// A client directory of a few bytes that is updated and rolled back inside this process, with a fault or
// without: fast enough for thousands of runs. Every change that a run makes is watched (small_client.cpp).

#include <windows.h>

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "app/apply_mode.h"
#include "core/owned_handle.h"
#include "tests/proof/fault_injection.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {

inline constexpr wchar_t kFailureMark[] = L"TalvexUpdateFailure.dat";
inline constexpr wchar_t kJournal[] = L".talvex-update\\previous\\rollback.journal";

class SmallClient {
 public:
  using Mode = std::function<int(int argument_count, const wchar_t* const* arguments)>;

  // Has `old` installed, and its helper as the running program; or is the client that stands at
  // `existing_root` already.
  SmallClient(TestRelease old, TestRelease next, const std::wstring& existing_root = {});

  // Exchanges both releases and makes the plan that leads from one to the other.
  void Offer(TestRelease old, TestRelease next);

  // Stages the new release, as the client does before it starts the helper.
  void Stage() const { StageTestRelease(new_release, plan_, root); }
  [[nodiscard]] RunRecord Apply(const FaultPoint& fault = {}, const Mode& mode = RunApplyMode);
  [[nodiscard]] RunRecord Rollback(const FaultPoint& fault = {});

  // Everything below the root, and making it so.
  [[nodiscard]] Tree Read() const { return ReadTree(root); }
  void Become(const Tree& tree) const;

  // What of `tree` is the client's: all files outside the work directory, and of the updater's own files the
  // state, the cache and the failure marker.
  [[nodiscard]] static Tree ClientFiles(Tree tree);
  // `files`, and the mark that the new release has failed.
  [[nodiscard]] Tree Marked(Tree files) const;
  // Whether the journal that undoes the update to the new release is in place.
  [[nodiscard]] bool HasOwnJournal(const Tree& tree) const;

  ScratchDirectory scratch;
  std::wstring root;
  TestRelease old_release;
  TestRelease new_release;
  Tree old_files;  // what ClientFiles has to be with the old release installed
  Tree new_files;
  RunSettings settings;
  // What a run is given instead of the right arguments, by their place.
  std::map<std::size_t, std::wstring> wrong_arguments;

 private:
  // The arguments are those of the command line, with a place for each handle.
  [[nodiscard]] RunRecord Run(const Mode& mode, std::vector<std::wstring> arguments, std::size_t parent_place,
                              const FaultPoint& fault);
  [[nodiscard]] std::string WhatIsWrong(const RunRecord& record) const;

  StagedPlan plan_;
  std::string journal_head_;
  OwnedHandle lock_;
};

}  // namespace talvex::test
