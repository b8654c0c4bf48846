#pragma once

#include <chrono>
#include <mutex>
#include <string>

namespace quillon::platform {

/// Keeps a problem that is the same for thousands of calls from filling the log. Safe for use from
/// several threads.
class OnceAMinute {
 public:
  /// Whether to log it: it is another one than the last, or that was a minute ago.
  bool IsDue(const std::string& problem) {
    const auto now = Clock::now();
    const std::lock_guard lock(mutex_);
    if (problem == last_ && now - logged_at_ < std::chrono::minutes(1)) {
      return false;
    }
    last_ = problem;
    logged_at_ = now;
    return true;
  }

 private:
  using Clock = std::chrono::steady_clock;

  std::mutex mutex_;
  std::string last_;
  Clock::time_point logged_at_;
};

}  // namespace quillon::platform
