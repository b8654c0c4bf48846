#pragma once

#include <cstddef>

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

}  // namespace quillon::test
