#include "tests/support/parser_check.h"

#include <algorithm>
#include <cstdint>

#include "core/text_encoding.h"
#include "core/transaction_handles.h"
#include "formats/apply_plan.h"
#include "formats/installed_state.h"
#include "formats/manifest.h"
#include "formats/relative_path.h"
#include "formats/rollback_journal.h"
#include "formats/text_lines.h"

namespace talvex::test {
namespace {

// Every record is read over another one. `reset`: a refusal has emptied the outputs that it has to empty.
// What was written for a refused text is of no interest.
Reading Verdict(bool accepted, const UpdateError& error, bool reset, const std::string& written) {
  if (accepted) {
    return error.IsEmpty() ? Reading{L"", written} : Reading{L"accepted with a message", ""};
  }
  if (!reset) {
    return {L"a value was left behind", ""};
  }
  return {error.IsEmpty() ? kRefused : error.Message(), ""};
}

Reading ReadManifest(std::string_view text) {
  Manifest manifest = {"left over", 1, {}, {{}}};
  UpdateError error;
  const bool accepted = ParseManifest(AsBytes(text), manifest, error);
  return Verdict(accepted, error, true, FormatManifest(manifest));
}

Reading ReadJournal(std::string_view text) {
  RollbackJournal journal = {{}, true, true, true, {{}}};
  UpdateError error;
  const bool accepted = ParseRollbackJournalText(text, journal, error);
  std::string written = "left over";
  UpdateError write_error;  // the writer compares the two forms of a path by itself
  const bool rewritten = accepted && FormatRollbackJournal(journal, written, write_error);
  return Verdict(accepted, error, true, rewritten ? written : "not written");
}

template <bool has_installed_release>
Reading ReadPlan(std::string_view text) {
  const auto parsed = [](const std::string& manifest_text) {
    Manifest manifest;
    UpdateError error;
    static_cast<void>(ParseManifest(AsBytes(manifest_text), manifest, error));  // a case of its own
    return manifest;
  };
  static const Manifest new_manifest = parsed(NewManifestText());
  static const Manifest installed = parsed(InstalledManifestText());
  Sha256Digest digest;
  std::vector<const ManifestEntry*> installs = {&new_manifest.entries.front()};
  std::vector<const ManifestEntry*> retires = installs;
  UpdateError error;
  const bool accepted =
      ParseHexDigest(ManifestDigestText(), digest) &&
      ParseApplyPlan(AsBytes(text), new_manifest, has_installed_release ? &installed : nullptr, digest,
                     installs, retires, error);
  return Verdict(accepted, error, true, FormatApplyPlan(digest, installs, retires));
}

Reading ReadState(std::string_view text) {
  InstalledState state = {true, 1, "left over", {}};
  UpdateError error;
  const bool accepted = ParseInstalledStateText(text, state, error);
  const std::string written =
      FormatInstalledState({state.release, state.sequence, state.manifest_digest, {}});
  return Verdict(accepted, error, !state.present, state.present ? written : "not present");
}

Reading ReadPath(std::string_view text) {
  std::wstring normalised = L"left over";
  UpdateError error;
  const bool accepted = ValidateRelativePath(text, normalised, error);
  std::string written = WideToUtf8(normalised);
  std::replace(written.begin(), written.end(), '\\', '/');
  return Verdict(accepted, error, normalised.empty(), written);
}

Reading ReadDigest(std::string_view text) {
  Sha256Digest digest;
  digest.bytes.fill(1);
  const bool accepted = ParseHexDigest(text, digest);
  return Verdict(accepted, {}, DigestsEqual(digest, {}), WideToUtf8(DigestToHex(digest)));
}

Reading ReadDecimal(std::string_view text) {
  std::uint64_t value = 1;
  const bool accepted = ParseDecimalU64(text, value);
  return Verdict(accepted, {}, value == 0, std::to_string(value));
}

// The command line's form: UTF-16 that ends at its first zero. Bytes from 0x80 become units whose lower half
// looks like a character of ASCII.
Reading ReadHandle(std::string_view text) {
  std::wstring operand;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    operand += static_cast<wchar_t>(byte < 0x80 ? byte : 0x0100 + (byte & 0x7F));
  }
  std::uint64_t value = 1;
  const bool accepted = ParseHandleValue(operand.c_str(), value);
  return Verdict(accepted, {}, value == 0, std::to_string(value));
}

}  // namespace

const std::vector<ParserCheck>& ParserChecks() {
  // Ordered so that the shards of the test, which take every fourth one, need about the same time.
  static const std::vector<ParserCheck> checks = {
      {"manifest", ManifestCases(), ReadManifest}, {"journal", JournalCases(), ReadJournal},
      {"plan", PlanCases(true), ReadPlan<true>},   {"first_plan", PlanCases(false), ReadPlan<false>},
      {"state", StateCases(), ReadState},          {"path", PathCases(), ReadPath},
      {"decimal", DecimalCases(), ReadDecimal},    {"digest", DigestCases(), ReadDigest},
      {"handle", DecimalCases(), ReadHandle},
  };
  return checks;
}

std::string FaultIn(const ParserCheck& check, std::string_view text) {
  const Reading reading = check.read(text);
  if (reading.message.empty()) {
    const Reading again = check.read(reading.written);
    return again.message.empty() && again.written == reading.written ? "" : "not the same after writing";
  }
  const bool known = std::any_of(check.cases.begin(), check.cases.end(), [&](const TextCase& each) {
    return each.expected.message == reading.message;
  });
  return known ? "" : "refused with \"" + WideToUtf8(reading.message) + "\"";
}

}  // namespace talvex::test
