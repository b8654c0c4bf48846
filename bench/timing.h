#pragma once

#include <functional>

namespace quillon::bench {

/// Does the work and prints the seconds that it took to standard output.
void Time(const std::function<void()>& work);

}  // namespace quillon::bench
