// What the parsers make of texts that somebody else may have written. Every rule of every text form is pinned
// by a text of its tables (tests/support/parser_cases.cpp), every set of characters byte by byte, and what no
// table thinks of is left to random changes. None of it may cost more than a modest amount of memory.

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "core/transaction_handles.h"
#include "tests/support/parser_check.h"

// Every allocation of this program is counted, so that a parser's appetite can be measured.
namespace {
std::size_t allocated_bytes = 0;
std::size_t live_blocks = 0;
}  // namespace

void* operator new(std::size_t size) {
  void* const block = std::malloc(size);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  allocated_bytes += size;
  ++live_blocks;
  return block;
}
void operator delete(void* block) noexcept {
  live_blocks -= block == nullptr ? 0 : 1;
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  operator delete(block);
}

namespace talvex::test {
namespace {

class HostileInput : public testing::TestWithParam<ParserCheck> {};

// The time that this thread has worked so far; the machine may be busy with other tests.
std::uint64_t ThreadTimeMs() {
  FILETIME times[4];  // created, exited, in the kernel, by itself
  GetThreadTimes(GetCurrentThread(), &times[0], &times[1], &times[2], &times[3]);
  return (std::uint64_t{times[3].dwHighDateTime} << 32 | times[3].dwLowDateTime) / 10'000;
}

// To read and write a text takes no more than a few dozen bytes for each of its bytes (the shortest row has
// nine), never more than a full file of rows needs, and leaves none behind.
void ExpectModestMemory(const ParserCheck& check, const std::string& text) {
  const std::size_t bytes_before = allocated_bytes;
  const std::size_t blocks_before = live_blocks;
  static_cast<void>(check.read(text));
  const std::size_t bytes = allocated_bytes - bytes_before;
  EXPECT_EQ(live_blocks, blocks_before);
  EXPECT_LE(bytes, std::min<std::size_t>(2'048 + 32 * text.size(), 8'388'608));
}

// At the limits of a form it takes milliseconds to read and write a text; a quadratic step would take
// seconds.
TEST_P(HostileInput, IsJudgedAsTheTableSays) {
  for (const TextCase& each : GetParam().cases) {
    SCOPED_TRACE(testing::PrintToString(each.text.substr(0, 400)));
    const std::uint64_t start = ThreadTimeMs();
    const Reading reading = GetParam().read(each.text);
    EXPECT_LT(ThreadTimeMs() - start, 500u);
    EXPECT_EQ(reading.message, each.expected.message);
    EXPECT_TRUE(reading.written == each.expected.written) << reading.written.substr(0, 400);
    ExpectModestMemory(GetParam(), each.text);
  }
}

// The good text or another one with up to three changes: pieces taken out, put in or both. The same seed
// makes the same texts with every compiler.
std::string Changed(const std::vector<std::string>& texts, std::mt19937& random) {
  const auto below = [&](std::size_t bound) { return static_cast<std::size_t>(random()) % bound; };
  std::string text = below(2) == 0 ? texts.front() : texts[below(texts.size())];
  for (std::size_t changes = below(4); changes > 0; --changes) {
    const std::string& other = texts[below(texts.size())];
    const std::size_t from = below(other.size() + 1);
    const std::string pieces[] = {"", std::string(1, static_cast<char>(below(256))),
                                  other.substr(from, below(80))};
    const std::size_t place = below(text.size() + 1);
    const std::size_t removed = below(2) == 0 ? below(3) : below(80);
    text.replace(place, removed, pieces[below(3)]);
  }
  return text;
}

TEST_P(HostileInput, IsRefusedWithAMessageOrWrittenAsItWasRead) {
  constexpr int kInputs = 1'000'000;
  constexpr int kSamples = kInputs / 16;
  constexpr std::uint32_t kSeed = 1;
  const ParserCheck& check = GetParam();
  std::vector<std::string> texts;
  for (const TextCase& each : check.cases) {
    if (each.text.size() < 4'000) {
      texts.push_back(each.text);
    }
  }
  std::mt19937 random(kSeed);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same texts in every run
  int accepted = 0;
  for (int i = 0; i < kInputs && !HasFailure(); ++i) {
    const std::string text = Changed(texts, random);
    EXPECT_EQ(FaultIn(check, text), "")
        << "seed " << kSeed << ", input " << i << ": " << testing::PrintToString(text);
    if (i % (kInputs / kSamples) == 0) {
      ExpectModestMemory(check, text);
      accepted += check.read(text).message.empty() ? 1 : 0;
    }
  }
  std::printf("counted: %s: %zu texts of the table, seed %u, %d random ones, %d %% accepted\n", check.name,
              check.cases.size(), kSeed, kInputs, 100 * accepted / kSamples);
  EXPECT_GT(accepted, kSamples / 20);
}

INSTANTIATE_TEST_SUITE_P(Parsers, HostileInput, testing::ValuesIn(ParserChecks()),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(HandleOperands, MayBeMissing) {
  std::uint64_t value = 1;
  EXPECT_FALSE(ParseHandleValue(nullptr, value));
  EXPECT_EQ(value, 0u);
}

}  // namespace
}  // namespace talvex::test
