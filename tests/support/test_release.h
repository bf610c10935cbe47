#pragma once

// Releases made up by tests and signed with the build's development key.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "formats/manifest.h"
#include "tests/support/scratch_directory.h"

namespace talvex::test {

// Folders of the build with a key pair each.
inline constexpr wchar_t kDevelopmentKey[] = L"development-key";
inline constexpr wchar_t kOtherKey[] = L"fixtures\\other-key";

// Signs as the publisher does, with the private half of a key pair.
[[nodiscard]] std::string SignWithKey(std::string_view text,
                                      const std::wstring& key_folder = kDevelopmentKey);
[[nodiscard]] std::string HexDigestOf(std::string_view text);

struct TestRelease {
  std::string name;
  std::uint64_t sequence = 1;
  std::map<std::string, std::string> files;  // path with "/" -> contents
  std::wstring key_folder = kDevelopmentKey;

  [[nodiscard]] std::string ManifestText() const;
  [[nodiscard]] std::string Signature() const { return SignWithKey(ManifestText(), key_folder); }
  [[nodiscard]] Manifest Parsed() const;
  // Its files, the state and the cache, as an update leaves them.
  [[nodiscard]] Tree Installed() const;
};

void InstallTestRelease(const TestRelease& release, const std::wstring& directory);

struct StagedPlan {
  std::vector<std::string> install;
  std::vector<std::string> retire;
};
[[nodiscard]] std::string PlanText(const TestRelease& release, const StagedPlan& plan);

// Lays the release out below the client root as the client does: manifest, signature, plan, and the files
// that the plan installs. Returns the stage root.
std::wstring StageTestRelease(const TestRelease& release, const StagedPlan& plan,
                              const std::wstring& client_root);

}  // namespace talvex::test
