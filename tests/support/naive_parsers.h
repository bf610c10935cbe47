#pragma once

// Every text form judged a second time, as plainly as possible: everything is cut into lists of strings,
// nothing is fast, and nothing is shared with the program that is being tested.

#include <string>
#include <vector>

namespace talvex::test {

struct NaiveVerdict {
  std::wstring message;   // "" when the text is accepted
  std::string rewritten;  // what has to be written for what was read: its one canonical spelling
};

[[nodiscard]] NaiveVerdict NaiveRelativePath(const std::string& text);
[[nodiscard]] NaiveVerdict NaiveManifest(const std::string& text);
[[nodiscard]] NaiveVerdict NaiveInstalledState(const std::string& text);
[[nodiscard]] NaiveVerdict NaiveRollbackJournal(const std::string& text);
// Values have no messages of their own: a refusal says "no".
[[nodiscard]] NaiveVerdict NaiveHexDigest(const std::string& text);
[[nodiscard]] NaiveVerdict NaiveDecimal(const std::string& text);

// The digest that the plan has to name, and the paths as the two manifests write them; null when no installed
// release could be proved.
[[nodiscard]] NaiveVerdict NaiveApplyPlan(const std::string& text, const std::string& digest,
                                          const std::vector<std::string>& new_paths,
                                          const std::vector<std::string>* installed_paths);

}  // namespace talvex::test
