#pragma once

namespace talvex::test {

// While one exists, operator new throws std::bad_alloc on every thread.
class MemoryShortage {
 public:
  MemoryShortage();
  MemoryShortage(const MemoryShortage&) = delete;
  MemoryShortage& operator=(const MemoryShortage&) = delete;
  ~MemoryShortage();
};

}  // namespace talvex::test
