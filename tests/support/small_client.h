#pragma once

// A client directory of a few bytes that is updated and rolled back inside this process, with a fault or
// without: fast enough for thousands of runs.

#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

#include "core/owned_handle.h"
#include "tests/support/fault_injection.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {

class SmallClient {
 public:
  // Has `old` installed, and its helper run as the running program of every release.
  SmallClient(TestRelease old, TestRelease next);
  // The client that another process has made at `existing_root`, as it stands.
  SmallClient(std::wstring existing_root, TestRelease old, TestRelease next);

  // Exchanges both releases and makes the plan that leads from one to the other: staged by StageAgain.
  void Offer(TestRelease old, TestRelease next);
  // Lays out what is missing of the staged new release, as the client does before it starts the helper.
  void StageAgain() const;

  [[nodiscard]] RunRecord Apply(const FaultPoint& fault = {});
  [[nodiscard]] RunRecord Rollback(const FaultPoint& fault = {});

  // Everything below the root, and making it so again; `now`: what Read has just returned, to spare another
  // look.
  [[nodiscard]] Tree Read() const { return ReadTree(root); }
  void Become(const Tree& tree) const { Become(tree, Read()); }
  void Become(const Tree& tree, const Tree& now) const;

  // What of `tree` is the client's: all files outside the work directory, and of the updater's own files the
  // state, the cache and the failure marker.
  [[nodiscard]] static Tree ClientFiles(Tree tree);
  // What ClientFiles has to be with a release installed, and that with the mark of the new release's failure.
  [[nodiscard]] Tree Installed(const TestRelease& release) const;
  [[nodiscard]] Tree RolledBack() const;
  // Whether the journal that undoes the update to the new release is in place.
  [[nodiscard]] bool HasOwnJournal(const Tree& tree) const;

  ScratchDirectory scratch;
  std::wstring root;
  TestRelease old_release;
  TestRelease new_release;
  StagedPlan plan;
  Tree old_files;  // Installed(old_release)
  Tree new_files;
  RunSettings settings;
  DWORD next_process_id = 1000;

 private:
  [[nodiscard]] RunRecord Run(int (*mode)(int, const wchar_t* const*), std::vector<std::wstring> arguments,
                              std::size_t parent_operand, const FaultPoint& fault);
  [[nodiscard]] std::string WhatIsWrong(const RunRecord& record) const;

  Tree stage_;  // relative to the root
  std::string journal_head_;
  OwnedHandle lock_;
};

}  // namespace talvex::test
