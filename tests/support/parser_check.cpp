#include "tests/support/parser_check.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "app/handle_operand.h"
#include "core/text_encoding.h"
#include "formats/apply_plan.h"
#include "formats/installed_state.h"
#include "formats/manifest.h"
#include "formats/relative_path.h"
#include "formats/rollback_journal.h"
#include "formats/text_lines.h"
#include "tests/support/naive_parsers.h"

namespace talvex::test {
namespace {

std::string Narrow(std::wstring_view wide) {
  std::string text;
  for (const wchar_t unit : wide) {
    text += unit < 0x80 ? static_cast<char>(unit) : '?';
  }
  return text;
}

// Turns a path's separators into the other form, whichever it has.
std::string Turned(std::wstring_view path) {
  std::string turned = Narrow(path);
  for (char& character : turned) {
    character = character == '/' ? '\\' : character == '\\' ? '/' : character;
  }
  return turned;
}

// Values have no messages: a refusal says "no", and must leave nothing behind.
bool SayNo(bool left_behind, UpdateError& error) {
  return Refuse(error, left_behind ? L"no, but a value was left behind" : L"no");
}

// A parser: Read and Write are the program's, Judge is the double's. Write adds what is wrong with the fields
// of a record that its text does not show.

struct ManifestParser {
  using Record = Manifest;
  static bool Read(const std::string& text, Record& record, UpdateError& error) {
    return ParseManifest(AsBytes(text), record, error);
  }
  static NaiveVerdict Judge(const std::string& text) { return NaiveManifest(text); }
  static std::string Write(const Record& record) {
    std::string text = FormatManifest(record);
    for (const ManifestEntry& entry : record.entries) {
      text += Turned(entry.normalised_path) == entry.path ? "" : "wrong normalised path";
    }
    return text;
  }
};

// The installed release spells a file of both in another case, so that a record shows whose entry was taken.
const std::string kPlanDigest = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";
const std::vector<std::string> kNewPaths = {"Talvex.exe", "data/a.pak",     "data/b.pak",
                                            "x",          "Data/Sub/c.DAT", ".hidden"};
const std::vector<std::string> kInstalledPaths = {"talvex.EXE", "old.dll", "Old/a.txt", "DATA/A.PAK", "gone"};

Manifest ManifestOf(const std::vector<std::string>& paths) {
  Manifest manifest;
  for (const std::string& path : paths) {
    const std::string turned = Turned(std::wstring(path.begin(), path.end()));
    manifest.entries.push_back({1, {}, path, std::wstring(turned.begin(), turned.end())});
  }
  return manifest;
}

template <bool has_installed>
struct PlanParser {
  struct Record {
    std::vector<const ManifestEntry*> installs;
    std::vector<const ManifestEntry*> retires;
  };
  static Sha256Digest Digest() {
    Sha256Digest digest;
    return ParseHexDigest(kPlanDigest, digest) ? digest : Sha256Digest();
  }
  static bool Read(const std::string& text, Record& record, UpdateError& error) {
    static const Manifest new_manifest = ManifestOf(kNewPaths);
    static const Manifest installed = ManifestOf(kInstalledPaths);
    return ParseApplyPlan(AsBytes(text), new_manifest, has_installed ? &installed : nullptr, Digest(),
                          record.installs, record.retires, error);
  }
  static NaiveVerdict Judge(const std::string& text) {
    return NaiveApplyPlan(text, kPlanDigest, kNewPaths, has_installed ? &kInstalledPaths : nullptr);
  }
  static std::string Write(const Record& record) {
    return FormatApplyPlan(Digest(), record.installs, record.retires);
  }
};

struct StateParser {
  using Record = InstalledState;
  static bool Read(const std::string& text, Record& record, UpdateError& error) {
    return ParseInstalledStateText(text, record, error) || (record.present && SayNo(true, error));
  }
  static NaiveVerdict Judge(const std::string& text) { return NaiveInstalledState(text); }
  static std::string Write(const Record& record) {
    return FormatInstalledState({record.release, record.sequence, record.manifest_digest, {}}) +
           (record.present ? "" : "not present");
  }
};

struct JournalParser {
  using Record = RollbackJournal;
  static bool Read(const std::string& text, Record& record, UpdateError& error) {
    return ParseRollbackJournalText(text, record, error);
  }
  static NaiveVerdict Judge(const std::string& text) { return NaiveRollbackJournal(text); }
  static std::string Write(const Record& record) {  // it compares the two forms of a path by itself
    std::string text;
    UpdateError error;
    return FormatRollbackJournal(record, text, error) ? text : Narrow(error.Message());
  }
};

struct PathParser {
  using Record = std::wstring;
  static bool Read(const std::string& text, Record& record, UpdateError& error) {
    record = L"left over";
    return ValidateRelativePath(text, record, error) || (!record.empty() && SayNo(true, error));
  }
  static NaiveVerdict Judge(const std::string& text) { return NaiveRelativePath(text); }
  static std::string Write(const Record& record) { return Turned(record); }
};

struct HexParser {
  using Record = Sha256Digest;
  static bool Read(const std::string& text, Record& record, UpdateError& error) {
    record.bytes.fill(1);
    return ParseHexDigest(text, record) || SayNo(!DigestsEqual(record, {}), error);
  }
  static NaiveVerdict Judge(const std::string& text) { return NaiveHexDigest(text); }
  static std::string Write(const Record& record) { return Narrow(DigestToHex(record)); }
};

struct DecimalParser {
  using Record = std::uint64_t;
  static bool Read(const std::string& text, Record& record, UpdateError& error) {
    record = 1;
    return ParseDecimalU64(std::string_view(text), record) || SayNo(record != 0, error);
  }
  static NaiveVerdict Judge(const std::string& text) { return NaiveDecimal(text); }
  static std::string Write(const Record& record) { return std::to_string(record); }
};

// The command line's form: UTF-16 that ends at its first zero. Bytes from 0x80 become units whose lower half
// looks like a character of ASCII.
struct HandleParser : DecimalParser {
  static bool Read(const std::string& text, Record& record, UpdateError& error) {
    std::wstring operand;
    for (const char character : text) {
      const auto byte = static_cast<unsigned char>(character);
      operand += static_cast<wchar_t>(byte < 0x80 ? byte : 0x0100 + (byte & 0x7F));
    }
    record = 1;
    return ParseHandleValue(operand.c_str(), record) || SayNo(record != 0, error);
  }
  static NaiveVerdict Judge(const std::string& text) { return NaiveDecimal(text.substr(0, text.find('\0'))); }
};

template <typename Parser>
void Parse(const std::string& text) {
  typename Parser::Record record{};
  UpdateError error;
  static_cast<void>(Parser::Read(text, record, error));
}

template <typename Parser>
std::wstring Compare(const std::string& text, std::string& fault) {
  typename Parser::Record record{};
  UpdateError error;
  const bool accepted = Parser::Read(text, record, error);
  const NaiveVerdict naive = Parser::Judge(text);
  if (accepted != error.IsEmpty() || error.Message() != naive.message) {
    fault = "refused with \"" + Narrow(error.Message()) + "\" instead of \"" + Narrow(naive.message) + "\"";
  } else if (accepted) {
    const std::string written = Parser::Write(record);
    if (written != naive.rewritten) {
      fault = "written as \"" + written + "\" instead of \"" + naive.rewritten + "\"";
    } else if (!Parser::Read(written, record, error) || Parser::Write(record) != written) {
      fault = "not the same record after writing: " + Narrow(error.Message());
    }
  }
  return error.Message();
}

template <typename Parser>
ParserCheck Check(const char* name, const TextForm& form, std::size_t messages) {
  return {name, form, messages, Parse<Parser>, Compare<Parser>};
}

}  // namespace

const std::vector<ParserCheck>& ParserChecks() {
  static const std::string plan_head = "TALVEX-APPLY-V1\nmanifest-sha256\t" + kPlanDigest + "\n";
  static const TextForm plan = {plan_head.c_str(), "%q\n", 4, 262'144};
  // Ordered so that the shards of the test, which take every fourth one, need the same time.
  static const std::vector<ParserCheck> checks = {
      Check<ManifestParser>(
          "manifest",
          {"TALVEX-UPDATE-V1\nrelease\t%r\nsequence\t%n\n", "file\t%s\t%d\t%p\n", 1'024, 4'194'304}, 13),
      Check<JournalParser>("journal",
                           {"TALVEX-ROLLBACK-V1\nmanifest-sha256\t%d\nprevious-state\t%b\n"
                            "previous-cache-manifest\t%b\nprevious-cache-signature\t%b\n",
                            "%k\t%b\t%p\n", 2'048, 262'144},
                           11),
      Check<PlanParser<true>>("plan", plan, 12),
      Check<PlanParser<false>>("first_plan", plan, 12),  // no installed release could be proved
      Check<StateParser>(
          "state", {"TALVEX-UPDATE-STATE-V1\nsequence\t%n\nrelease\t%r\nmanifest-sha256\t%d\n", "", 0, 4'096},
          4),
      Check<PathParser>("path", {"%p", "", 0, 220}, 4),
      Check<DecimalParser>("decimal", {"%n", "", 0, 20}, 1),
      Check<HexParser>("hex", {"%d", "", 0, 64}, 1),
      Check<HandleParser>("handle", {"%n", "", 0, 20}, 1),
  };
  return checks;
}

}  // namespace talvex::test
