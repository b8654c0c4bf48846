#pragma once

#include <chrono>

namespace quillon::webapid {

/// Keeps clients from filling the mail log: all lines about what was refused them ask here first.
class RefusalLog {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr int kMostLinesPerSecond = 20;

  /// Whether there is room for a line. Who is told that there is none leaves it out.
  bool MayWrite(Time now);
  /// Writes how many lines were left out, once the second in which they were is over. To be called
  /// about once a second.
  void Report(Time now);

 private:
  Time second_;
  int asked_ = 0;  // in this second
};

}  // namespace quillon::webapid
