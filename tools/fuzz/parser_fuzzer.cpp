// One libFuzzer program for each parser; TALVEX_PARSER is its name in the list of checks.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/parser_check.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t room);

namespace {

const talvex::test::ParserCheck& Check() {
  const std::vector<talvex::test::ParserCheck>& checks = talvex::test::ParserChecks();
  static const talvex::test::ParserCheck& check =
      *std::find_if(checks.begin(), checks.end(),
                    [](const auto& each) { return std::string_view(each.name) == TALVEX_PARSER; });
  return check;
}

}  // namespace

// Every eighth text is a new one in the parser's own form, so that the fuzzer needs no collection of good
// ones.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t room,
                                               unsigned seed) {
  if (seed % 8 != 0) {
    return LLVMFuzzerMutate(data, size, room);
  }
  const std::string text = talvex::test::InputGenerator(seed).Make(Check().form).substr(0, room);
  std::copy(text.begin(), text.end(), data);
  return text.size();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string fault;
  static_cast<void>(Check().compare(std::string(data, data + size), fault));
  if (!fault.empty()) {
    std::fprintf(stderr, "%s: %s\n", Check().name, fault.c_str());
    std::abort();
  }
  return 0;
}
