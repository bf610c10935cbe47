// One libFuzzer program for each parser; TALVEX_PARSER is its name in the list of checks.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/sha256.h"
#include "tests/support/parser_check.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t room);

namespace {

const talvex::test::ParserCheck& Check() {
  static const talvex::test::ParserCheck& check = *std::ranges::find(
      talvex::test::ParserChecks(), std::string_view(TALVEX_PARSER), &talvex::test::ParserCheck::name);
  return check;
}

}  // namespace

// No parser looks at the digest of a whole manifest.
bool talvex::Sha256OfBuffer(std::span<const std::byte>, Sha256Digest& digest, UpdateError&) {
  digest = {};
  return true;
}

// Every eighth text comes from the parser's table, so that the fuzzer needs no collection of good ones.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t room,
                                               unsigned seed) {
  if (seed % 8 != 0) {
    return LLVMFuzzerMutate(data, size, room);
  }
  const std::string& text = Check().cases[seed / 8 % Check().cases.size()].text;
  const std::size_t length = std::min(text.size(), room);
  std::copy_n(text.begin(), length, data);
  return length;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string fault = talvex::test::FaultIn(Check(), std::string(data, data + size));
  if (!fault.empty()) {
    std::fprintf(stderr, "%s: %s\n", Check().name, fault.c_str());
    std::abort();
  }
  return 0;
}
