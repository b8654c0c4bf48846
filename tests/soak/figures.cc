#include "figures.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <fmt/format.h>

#include "calls.h"

namespace quillon::soak {

namespace {

using Clock = std::chrono::steady_clock;

// The number behind a word such as "VmRSS:".
double NumberIn(pid_t pid, const char* file, const std::string& word) {
  std::ifstream text(fmt::format("/proc/{}/{}", pid, file));
  for (std::string next; text >> next;) {
    if (next == word) {
      double number = 0;
      text >> number;
      return number;
    }
  }
  throw std::runtime_error("a process of the web server has ended");
}

int DescriptorsOf(pid_t pid) {
  const std::filesystem::directory_iterator entries(fmt::format("/proc/{}/fd", pid));
  return static_cast<int>(std::distance(begin(entries), end(entries)));
}

}  // namespace

Figures FiguresOf(pid_t pid) {
  return {NumberIn(pid, "status", "VmRSS:") / 1024, NumberIn(pid, "smaps_rollup", "Pss:") / 1024,
          DescriptorsOf(pid), static_cast<int>(NumberIn(pid, "status", "Threads:"))};
}

Latency LatencyOf(std::vector<double>& times) {
  std::sort(times.begin(), times.end());
  return {times[times.size() / 2], times[times.size() * 99 / 100]};
}

Latency MeasureCalls(const test::WebServer& server, const std::string& token) {
  constexpr int kBatches = 20;
  constexpr int kCalls = 200;
  test::WebClient client(server.Url(true));
  Latency fastest{1e9, 1e9};
  for (int batch = 0; batch < kBatches; ++batch) {
    std::vector<double> times;
    for (int call = 0; call < kCalls; ++call) {
      const auto begin = Clock::now();
      if (client.Call(token, kPlainCall).status != 200) {
        throw std::runtime_error("a plain call fails");
      }
      const std::chrono::duration<double, std::milli> took = Clock::now() - begin;
      times.push_back(took.count());
    }
    const Latency latency = LatencyOf(times);
    if (latency.p99 < fastest.p99) {
      fastest = latency;
    }
  }
  return fastest;
}

}  // namespace quillon::soak
