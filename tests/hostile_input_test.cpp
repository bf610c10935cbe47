#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <string>

#include "tests/support/input_generator.h"
#include "tests/support/parser_check.h"

// Every allocation of this program is counted, so that a parser's appetite can be measured. The size stands
// in front of each block.
namespace {
constexpr std::size_t kSizeRoom = 16;  // keeps the block aligned
std::size_t allocated = 0;
std::size_t most_allocated = 0;
}  // namespace

void* operator new(std::size_t size) {
  void* const block = std::malloc(kSizeRoom + size);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  *static_cast<std::size_t*>(block) = size;
  allocated += size;
  most_allocated = std::max(most_allocated, allocated);
  return static_cast<std::byte*>(block) + kSizeRoom;
}
void operator delete(void* memory) noexcept {
  if (memory != nullptr) {
    void* const block = static_cast<std::byte*>(memory) - kSizeRoom;
    allocated -= *static_cast<std::size_t*>(block);
    std::free(block);
  }
}
void operator delete(void* memory, std::size_t) noexcept {
  operator delete(memory);
}

namespace talvex::test {
namespace {

constexpr int kInputs = 1'000'000;

class HostileInput : public testing::TestWithParam<ParserCheck> {};

// A parser keeps no more than a few dozen bytes for each byte it reads (the shortest row has nine), and never
// more than a full file of rows needs.
TEST_P(HostileInput, IsJudgedAsTheNaiveParserJudgesIt) {
  const ParserCheck& check = GetParam();
  constexpr std::uint32_t kSeed = 1;
  InputGenerator generator(kSeed);
  std::map<std::wstring, int> verdicts;
  std::size_t longest = 0;
  std::size_t hungriest = 0;
  for (int i = 0; i < kInputs; ++i) {
    const std::string text = generator.Make(check.form);
    std::string fault;
    ++verdicts[check.compare(text, fault)];
    ASSERT_EQ(fault, "") << "seed " << kSeed << ", input " << i << ": " << testing::PrintToString(text);
    longest = std::max(longest, text.size());
    if (i % 16 == 0 || text.size() > 10'000) {
      const std::size_t before = allocated;
      most_allocated = allocated;
      check.parse(text);
      const std::size_t used = most_allocated - before;
      hungriest = std::max(hungriest, used);
      ASSERT_LE(used, std::min<std::size_t>(2'048 + 32 * text.size(), 4'194'304)) << "input " << i;
      ASSERT_EQ(allocated, before);
    }
  }
  const int accepted = verdicts[L""];
  std::printf(
      "counted: %s: seed %u, %d inputs of up to %zu bytes, %d accepted, %d rejected with %zu messages, "
      "memory %zu\n",
      check.name, kSeed, kInputs, longest, accepted, kInputs - accepted, verdicts.size() - 1, hungriest);
  EXPECT_GT(accepted, kInputs / 10);
  EXPECT_LT(accepted, kInputs / 10 * 9);
  EXPECT_EQ(verdicts.size() - 1, check.messages);
}

INSTANTIATE_TEST_SUITE_P(Parsers, HostileInput, testing::ValuesIn(ParserChecks()),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace talvex::test
