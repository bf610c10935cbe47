#pragma once

// One change of a client file, from a verified plan row, with what is needed to undo it.

#include <string>

#include "formats/manifest.h"

namespace talvex {

struct ApplyOperation {
  // In the new manifest for an install, in the trusted current manifest for a retire. Both outlive the run.
  const ManifestEntry* entry = nullptr;
  // False: the staged file replaces or creates the target. True: the target is moved away for good.
  bool retire = false;
  // Full path of the new file; empty for a retire, and in the rollback mode, where no staged file is known.
  std::wstring staged_path;
  std::wstring target_path;         // full path below the client root
  std::wstring rollback_copy_path;  // the same relative path below the rollback files directory
  // The target existed as a regular file when rollback was prepared.
  bool existed = false;
  // The change has been made.
  bool applied = false;
};

}  // namespace talvex
