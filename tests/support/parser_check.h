#pragma once

// Each parser of the program beside its naive double, behind one face: what a million texts, or a fuzzer's
// hundred million, are put to.

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/input_generator.h"

namespace talvex::test {

struct ParserCheck {
  const char* name;
  TextForm form;
  std::size_t messages;  // that a text can be refused with
  // What the program itself does with a text, and nothing else.
  void (*parse)(const std::string& text);
  // Puts a text to both parsers and, when it is accepted, writes the record, parses that and writes it again.
  // Returns the message of refusal, "" for accepted. `fault` says what does not agree, if anything.
  std::wstring (*compare)(const std::string& text, std::string& fault);
};

[[nodiscard]] const std::vector<ParserCheck>& ParserChecks();

}  // namespace talvex::test
