#include "tests/support/naive_parsers.h"

#include <cstddef>
#include <cstdint>
#include <set>

namespace talvex::test {
namespace {

using Strings = std::vector<std::string>;

const std::string kDigits = "0123456789";
const std::string kHexDigits = "0123456789abcdef";
const std::string kAlphanumeric = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
const std::string kName = kAlphanumeric + "._-";
const std::string kPath = kAlphanumeric + "._-/";
const std::string kMost64 = "18446744073709551615";
const std::set<std::string> kDevices = {"con",  "prn",  "aux",  "nul",  "com1", "com2", "com3", "com4",
                                        "com5", "com6", "com7", "com8", "com9", "lpt1", "lpt2", "lpt3",
                                        "lpt4", "lpt5", "lpt6", "lpt7", "lpt8", "lpt9"};

NaiveVerdict No(const std::wstring& message) {
  return {message, ""};
}

bool MadeOf(const std::string& text, const std::string& allowed) {
  return text.find_first_not_of(allowed) == std::string::npos;
}

bool Has(const std::string& text, char character) {
  return text.find(character) != std::string::npos;
}

bool Begins(const std::string& text, const std::string& beginning) {
  return text.substr(0, beginning.size()) == beginning;
}

std::string Lower(std::string text) {
  for (char& character : text) {
    character = character >= 'A' && character <= 'Z' ? static_cast<char>(character + ('a' - 'A')) : character;
  }
  return text;
}

Strings Split(const std::string& text, char separator) {
  Strings pieces;
  std::size_t start = 0;
  for (std::size_t end = 0; end != std::string::npos; start = end + 1) {
    end = text.find(separator, start);
    pieces.push_back(text.substr(start, end - start));
  }
  return pieces;
}

// The lines of a text, none when it is not such a text at all.
Strings Lines(const std::string& text, std::size_t most_bytes) {
  if (text.empty() || text.size() > most_bytes || text.back() != '\n' || Has(text, '\r') || Has(text, '\0')) {
    return {};
  }
  return Split(text.substr(0, text.size() - 1), '\n');
}

// What follows `key` and a TAB; a TAB, which is in no value, when the line begins otherwise.
std::string ValueOf(const std::string& line, const std::string& key) {
  return Begins(line, key + "\t") ? line.substr(key.size() + 1) : "\t";
}

std::string WithoutLeadingZeros(const std::string& digits) {
  const std::size_t first = digits.find_first_not_of('0');
  return first == std::string::npos ? "0" : digits.substr(first);
}

// Numbers are compared as they are written: the longer one is more.
bool IsNumber(const std::string& text, const std::string& most) {
  const std::string number = WithoutLeadingZeros(text);
  return !text.empty() && MadeOf(text, kDigits) &&
         (number.size() < most.size() || (number.size() == most.size() && number <= most));
}

bool IsNumberAboveZero(const std::string& text, const std::string& most) {
  return IsNumber(text, most) && WithoutLeadingZeros(text) != "0";
}

bool IsDigest(const std::string& text) {
  return text.size() == 64 && MadeOf(text, kHexDigits);
}

bool IsRelease(const std::string& text) {
  return !text.empty() && text.size() <= 64 && MadeOf(text, kName) && Has(kAlphanumeric, text.front()) &&
         text.back() != '.';
}

bool IsFlag(const std::string& text) {
  return text == "0" || text == "1";
}

bool IsUpdaterState(const std::string& lower) {
  return lower == "talvexupdatestate.dat" || Begins(lower, "talvexupdatestate.dat.new") ||
         lower == "talvexupdatefailure.dat" || lower == "talvexupdatefailure.dat.new" ||
         lower == ".talvex-update" || Begins(lower, ".talvex-update/") || lower == ".talvex-update-cache" ||
         Begins(lower, ".talvex-update-cache/");
}

// The path as `paths` spells it, or "".
std::string Find(const Strings& paths, const std::string& wanted) {
  for (const std::string& path : paths) {
    if (Lower(path) == Lower(wanted)) {
      return path;
    }
  }
  return "";
}

}  // namespace

NaiveVerdict NaiveRelativePath(const std::string& text) {
  if (text.empty() || text.size() > 220 || text.front() == '/' || text.back() == '/' || Has(text, '\\') ||
      Has(text, '\t')) {
    return No(L"The update manifest contains an unsafe relative path.");
  }
  if (!MadeOf(text, kPath)) {
    return No(L"The update manifest path is outside the supported ASCII file-name set.");
  }
  for (const std::string& segment : Split(text, '/')) {
    if (segment.empty() || segment.size() > 100 || segment.back() == '.' ||
        kDevices.contains(Split(Lower(segment), '.')[0])) {
      return No(L"The update manifest contains an unsafe path segment.");
    }
  }
  if (IsUpdaterState(Lower(text))) {
    return No(L"The update manifest path targets updater state.");
  }
  return {L"", text};
}

NaiveVerdict NaiveManifest(const std::string& text) {
  const Strings lines = Lines(text, 4'194'304);
  if (lines.empty()) {
    return No(L"The update manifest must be UTF-8 text with LF line endings.");
  }
  if (lines.size() < 4 || lines[0] != "TALVEX-UPDATE-V1") {
    return No(L"The update manifest header is invalid.");
  }
  if (!IsRelease(ValueOf(lines[1], "release"))) {
    return No(L"The update manifest release is invalid.");
  }
  const std::string sequence = ValueOf(lines[2], "sequence");
  if (!IsNumberAboveZero(sequence, kMost64)) {
    return No(L"The update manifest sequence is invalid.");
  }
  std::string rewritten = lines[0] + "\n" + lines[1] + "\nsequence\t" + WithoutLeadingZeros(sequence) + "\n";
  std::set<std::string> seen;
  std::uint64_t total = 0;
  for (std::size_t i = 3; i < lines.size(); ++i) {
    const Strings fields = Split(lines[i], '\t');
    if (fields.size() != 4 || fields[0] != "file") {
      return No(L"The update manifest contains an invalid file row.");
    }
    if (!IsNumberAboveZero(fields[1], "8589934592") || !IsDigest(fields[2])) {
      return No(L"The update manifest contains invalid file data.");
    }
    if (const NaiveVerdict path = NaiveRelativePath(fields[3]); !path.message.empty()) {
      return path;
    }
    if (!seen.insert(Lower(fields[3])).second) {
      return No(L"The update manifest contains a duplicate path.");
    }
    total += std::stoull(fields[1]);
    if (total > 17'179'869'184) {
      return No(L"The update manifest exceeds the release size limit.");
    }
    if (seen.size() > 1'024) {
      return No(L"The update manifest contains too many files.");
    }
    rewritten += "file\t" + WithoutLeadingZeros(fields[1]) + "\t" + fields[2] + "\t" + fields[3] + "\n";
  }
  return {L"", rewritten};
}

NaiveVerdict NaiveInstalledState(const std::string& text) {
  const Strings lines = Lines(text, 4'096);
  if (lines.empty()) {
    return No(L"The installed update state has an invalid encoding.");
  }
  if (lines.size() != 4 || lines[0] != "TALVEX-UPDATE-STATE-V1") {
    return No(L"The installed update state has an invalid format.");
  }
  const std::string sequence = ValueOf(lines[1], "sequence");
  if (!IsNumberAboveZero(sequence, kMost64) || !IsRelease(ValueOf(lines[2], "release"))) {
    return No(L"The installed update state has invalid release information.");
  }
  if (!IsDigest(ValueOf(lines[3], "manifest-sha256"))) {
    return No(L"The installed update state has an invalid manifest digest.");
  }
  return {L"", lines[0] + "\nsequence\t" + WithoutLeadingZeros(sequence) + "\n" + lines[2] + "\n" + lines[3] +
                   "\n"};
}

NaiveVerdict NaiveRollbackJournal(const std::string& text) {
  const Strings lines = Lines(text, 262'144);
  if (lines.empty()) {
    return No(L"The update rollback journal has an invalid encoding.");
  }
  if (lines.size() < 6 || lines[0] != "TALVEX-ROLLBACK-V1") {
    return No(L"The update rollback journal has an invalid format.");
  }
  if (!IsDigest(ValueOf(lines[1], "manifest-sha256"))) {
    return No(L"The update rollback journal has an invalid manifest digest.");
  }
  if (!IsFlag(ValueOf(lines[2], "previous-state")) || !IsFlag(ValueOf(lines[3], "previous-cache-manifest")) ||
      !IsFlag(ValueOf(lines[4], "previous-cache-signature"))) {
    return No(L"The update rollback journal has invalid previous-state flags.");
  }
  std::set<std::string> seen;
  for (std::size_t i = 5; i < lines.size(); ++i) {
    const Strings fields = Split(lines[i], '\t');
    if (fields.size() != 3 || (fields[0] != "file" && fields[0] != "delete") || !IsFlag(fields[1])) {
      return No(L"The update rollback journal has an invalid file row.");
    }
    if (const NaiveVerdict path = NaiveRelativePath(fields[2]); !path.message.empty()) {
      return path;
    }
    if (!seen.insert(Lower(fields[2])).second) {
      return No(L"The update rollback journal contains a duplicate file.");
    }
  }
  if (seen.size() > 2'048) {
    return No(L"The update rollback journal has an invalid file count.");
  }
  return {L"", text};  // every line has one spelling
}

NaiveVerdict NaiveHexDigest(const std::string& text) {
  return IsDigest(text) ? NaiveVerdict{L"", text} : No(L"no");
}

NaiveVerdict NaiveDecimal(const std::string& text) {
  return IsNumber(text, kMost64) ? NaiveVerdict{L"", WithoutLeadingZeros(text)} : No(L"no");
}

NaiveVerdict NaiveApplyPlan(const std::string& text, const std::string& digest, const Strings& new_paths,
                            const Strings* installed_paths) {
  const Strings lines = Lines(text, 262'144);
  if (lines.empty()) {
    return No(L"The update apply plan has an invalid encoding.");
  }
  if (lines.size() < 3 || lines[0] != "TALVEX-APPLY-V1") {
    return No(L"The update apply plan header is invalid.");
  }
  if (!Begins(lines[1], "manifest-sha256\t")) {
    return No(L"The update apply plan has no manifest digest.");
  }
  if (ValueOf(lines[1], "manifest-sha256") != digest) {
    return No(L"The update apply plan targets a different manifest.");
  }
  std::string installs;
  std::string retires;
  std::set<std::string> seen;
  for (std::size_t i = 2; i < lines.size(); ++i) {
    const bool retire = Begins(lines[i], "delete\t");
    if (!retire && !Begins(lines[i], "file\t")) {
      return No(L"The update apply plan has an invalid file row.");
    }
    const std::string path = ValueOf(lines[i], retire ? "delete" : "file");
    if (const NaiveVerdict verdict = NaiveRelativePath(path); !verdict.message.empty()) {
      return verdict;
    }
    if (!seen.insert(Lower(path)).second) {
      return No(L"The update apply plan contains a duplicate file.");
    }
    if (retire && installed_paths == nullptr) {
      return No(L"The update apply plan cannot prove a managed file removal.");
    }
    const std::string found = Find(retire ? *installed_paths : new_paths, path);
    if (found.empty()) {
      return No(L"The update apply plan contains a file outside the signed manifest.");
    }
    if (retire && !Find(new_paths, path).empty()) {
      return No(L"The update apply plan tries to delete a current file.");
    }
    (retire ? retires : installs) += (retire ? "delete\t" : "file\t") + found + "\n";
  }
  return {L"", lines[0] + "\n" + lines[1] + "\n" + installs + retires};
}

}  // namespace talvex::test
