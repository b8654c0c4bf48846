#include "lib-webapi/allocations.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>
#include <utility>

namespace {

constexpr int kNoEnd = std::numeric_limits<int>::max();

int allocations_left = kNoEnd;
std::size_t live_bytes = 0;
std::size_t peak_bytes = 0;

bool IsExhausted() {
  if (allocations_left > 0 && allocations_left < kNoEnd) {
    --allocations_left;
    return false;
  }
  return allocations_left == 0;
}

void Free(void* memory) {
  live_bytes -= ::malloc_usable_size(memory);
  std::free(memory);
}

}  // namespace

// This program's own, and so the libraries', too.
void* operator new(std::size_t size) {
  void* const memory = IsExhausted() ? nullptr : std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  live_bytes += ::malloc_usable_size(memory);
  peak_bytes = std::max(peak_bytes, live_bytes);
  return memory;
}

void operator delete(void* memory) noexcept { Free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { Free(memory); }

namespace quillon::test {

std::size_t LiveBytes() { return live_bytes; }

std::size_t TakePeakBytes() { return std::exchange(peak_bytes, live_bytes); }

ExhaustedMemory::ExhaustedMemory(int left) { allocations_left = left; }

ExhaustedMemory::~ExhaustedMemory() { allocations_left = kNoEnd; }

}  // namespace quillon::test
