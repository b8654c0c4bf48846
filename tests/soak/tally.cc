#include "tally.h"

#include <numeric>
#include <utility>

#include <fmt/format.h>

namespace quillon::soak {

bool Tally::Count(const std::string& what, const test::WebAnswer& answer, bool is_right) {
  const std::lock_guard lock(mutex_);
  ++kinds_[what];
  if (answer.status == 502) {
    ++lost_;
  } else if (!is_right) {
    wrong_.push_back(fmt::format("{}: {} {}", what, answer.status, answer.text.substr(0, 200)));
  }
  return is_right;
}

void Tally::AddTime(std::chrono::duration<double, std::milli> took) {
  const std::lock_guard lock(mutex_);
  times_.push_back(took.count());
}

void Tally::AddWrong(const std::string& what) {
  const std::lock_guard lock(mutex_);
  wrong_.push_back(what);
}

unsigned long Tally::requests() const {
  const std::lock_guard lock(mutex_);
  return std::accumulate(kinds_.begin(), kinds_.end(), 0UL,
                         [](unsigned long sum, const auto& kind) { return sum + kind.second; });
}

unsigned long Tally::lost() const {
  const std::lock_guard lock(mutex_);
  return lost_;
}

std::vector<std::string> Tally::wrong() const {
  const std::lock_guard lock(mutex_);
  return wrong_;
}

std::map<std::string, unsigned long> Tally::kinds() const {
  const std::lock_guard lock(mutex_);
  return kinds_;
}

std::vector<double> Tally::TakeTimes() {
  const std::lock_guard lock(mutex_);
  return std::exchange(times_, {});
}

}  // namespace quillon::soak
