#pragma once

#include <string>
#include <utility>

#include "results.h"

namespace quillon::bench {

/// Sizes of the measurements of the web server and of calls to it.
struct WebSizes {
  int remote_calls = 50;  // of a run
  int local_calls = 200'000;
  int rounds = 7;
  int load_rounds = 5;
  int load_seconds = 1;  // of a round
  unsigned long requests = 100'000;
};

inline constexpr WebSizes kQuickWeb{5, 2000, 1, 1, 1, 1000};

/// Each method is one measurement, on a web server of its own.
class WebBench {
 public:
  WebBench(std::string programs, const WebSizes& sizes, Results& results)
      : programs_(std::move(programs)), sizes_(sizes), results_(results) {}

  void RemoteCall();
  void LocalCall();
  void Server();
  void Memory();
  void Start();

 private:
  std::string Program(const std::string& name) const { return programs_ + "/" + name; }

  const std::string programs_;
  const WebSizes sizes_;
  Results& results_;
};

}  // namespace quillon::bench
