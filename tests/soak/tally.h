#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "system/web_server.h"

namespace quillon::soak {

/// What all clients have seen. For use by many threads.
class Tally {
 public:
  /// Judges an answer. One that a dead worker owes is counted as lost and not as wrong; true for
  /// one that is as it has to be.
  bool Count(const std::string& what, const test::WebAnswer& answer, bool is_right);
  void AddTime(std::chrono::duration<double, std::milli> took);
  /// Something else that is not as it has to be.
  void AddWrong(const std::string& what);

  unsigned long requests() const;
  unsigned long lost() const;
  std::vector<std::string> wrong() const;
  std::map<std::string, unsigned long> kinds() const;
  /// Those of plain calls since the last time.
  std::vector<double> TakeTimes();

 private:
  mutable std::mutex mutex_;
  std::map<std::string, unsigned long> kinds_;
  std::vector<std::string> wrong_;
  std::vector<double> times_;
  unsigned long lost_ = 0;
};

}  // namespace quillon::soak
