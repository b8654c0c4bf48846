#include "timing.h"

#include <chrono>
#include <cstdio>

namespace quillon::bench {

void Time(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  std::printf("%.6f\n", took.count());
}

}  // namespace quillon::bench
