#include "tests/support/memory_shortage.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> memory_is_short = false;

}  // namespace

void* operator new(std::size_t size) {
  void* const memory = memory_is_short ? nullptr : std::malloc(size == 0 ? 1 : size);
  return memory == nullptr ? throw std::bad_alloc() : memory;
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace talvex::test {

MemoryShortage::MemoryShortage() {
  memory_is_short = true;
}
MemoryShortage::~MemoryShortage() {
  memory_is_short = false;
}

}  // namespace talvex::test
