#pragma once

// Every parser of the program behind one face, and for every text form the texts that say what it is: a good
// one first, then changes of it, one at a time, each with the verdict that belongs to it.

#include <string>
#include <string_view>
#include <vector>

namespace talvex::test {

struct Reading {
  std::wstring message;  // of the refusal; "" when the text is accepted
  std::string written;   // the canonical spelling of what was read; "" after a refusal
};

struct TextCase {
  std::string text;
  Reading expected;
};
using TextCases = std::vector<TextCase>;

struct ParserCheck {
  const char* name;
  TextCases cases;
  // Parses a text and, when it is accepted, writes the record. A fault of the parser itself (a value left
  // behind by a refusal, a refusal without a message) gives a message that is in no case.
  Reading (*read)(std::string_view text);
};

[[nodiscard]] const std::vector<ParserCheck>& ParserChecks();

// Whatever the text, it is refused with a message that the form knows, or what is written for it is accepted
// and written the same. "" when that holds, else what does not.
[[nodiscard]] std::string FaultIn(const ParserCheck& check, std::string_view text);

// The tables, in parser_cases.cpp.
inline constexpr wchar_t kRefused[] = L"no";  // of values, which have no messages of their own
[[nodiscard]] TextCases ManifestCases();
[[nodiscard]] TextCases JournalCases();
[[nodiscard]] TextCases StateCases();
[[nodiscard]] TextCases PathCases();
[[nodiscard]] TextCases DecimalCases();
[[nodiscard]] TextCases DigestCases();

// Plans are judged against these two manifests, which spell the path of both differently, so that a record
// shows whose entry was taken. The new one is full: a plan may name as many files as a manifest may list.
[[nodiscard]] TextCases PlanCases(bool has_installed_release);
[[nodiscard]] std::string NewManifestText();
[[nodiscard]] std::string InstalledManifestText();
[[nodiscard]] std::string ManifestDigestText();  // that plans have to give

}  // namespace talvex::test
