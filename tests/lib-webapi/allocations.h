#pragma once

#include <cstddef>
#include <new>

namespace quillon::test {

/// Bytes that were allocated by operator new and are not freed yet, by this program or a library.
std::size_t LiveBytes();

/// The most that were live at one time since the last call of this, or since the beginning.
std::size_t TakePeakBytes();

/// While it lives, operator new gives out memory so many times more, and then fails.
class ExhaustedMemory {
 public:
  explicit ExhaustedMemory(int allocations_left = 0);
  ExhaustedMemory(const ExhaustedMemory&) = delete;
  ExhaustedMemory& operator=(const ExhaustedMemory&) = delete;
  ~ExhaustedMemory();
};

/// Runs an operation that has memory only for so many allocations; answers whether it was enough.
template <typename Operation>
bool IsEnough(int allocations, Operation operation) {
  try {
    const ExhaustedMemory memory(allocations);
    operation();
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

}  // namespace quillon::test
