#include "tests/support/run_memory.h"

#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

namespace talvex::test {
namespace {

// Stands before every allocation; those of the run are linked.
struct Block {
  Block* previous = nullptr;
  Block* next = nullptr;
  std::byte unused[16 - 2 * sizeof(void*)] = {};  // keeps what follows on a multiple of 16 from here
};

Block run_blocks;

void FreeBlock(Block* block) {
  if (block->previous != nullptr) {
    block->previous->next = block->next;
    if (block->next != nullptr) {
      block->next->previous = block->previous;
    }
  }
  std::free(block);
}

void* AllocateBlock(std::size_t size) {
  const bool of_the_run = count_allocation != nullptr && count_allocation();
  auto* const block = static_cast<Block*>(std::malloc(sizeof(Block) + size));
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  *block = {};
  if (of_the_run) {
    block->previous = &run_blocks;
    block->next = run_blocks.next;
    run_blocks.next = block;
    if (block->next != nullptr) {
      block->next->previous = block;
    }
  }
  return block + 1;
}

}  // namespace

bool (*count_allocation)() = nullptr;

void FreeRunMemory() {
  for (Block* block = std::exchange(run_blocks.next, nullptr); block != nullptr;) {
    std::free(std::exchange(block, block->next));
  }
}

}  // namespace talvex::test

void* operator new(std::size_t size) {
  return talvex::test::AllocateBlock(size);
}

void operator delete(void* memory) noexcept {
  if (memory != nullptr) {
    talvex::test::FreeBlock(static_cast<talvex::test::Block*>(memory) - 1);
  }
}

void operator delete(void* memory, std::size_t) noexcept {
  operator delete(memory);
}
