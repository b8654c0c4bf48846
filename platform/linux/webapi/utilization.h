#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <json/value.h>

namespace quillon::platform {

/// What the host tells of itself: the texts of the files in /proc.
struct ProcTexts {
  std::string stat;
  std::string meminfo;
  std::string net_dev;
};

/// A host at one moment. Everything but the memory counts from the start of the host.
struct UtilizationSample {
  /// Ticks of all processors together.
  struct Processors {
    unsigned long long user = 0;
    unsigned long long system = 0;
    unsigned long long other = 0;
    unsigned long long idle = 0;
  };
  /// Bytes.
  struct Memory {
    unsigned long long total = 0;
    unsigned long long available = 0;
    unsigned long long free = 0;
    unsigned long long cached = 0;
    unsigned long long swap_total = 0;
    unsigned long long swap_free = 0;
  };
  /// Bytes that an interface received and sent.
  struct Traffic {
    unsigned long long rx = 0;
    unsigned long long tx = 0;
  };

  std::chrono::nanoseconds time{};  ///< since the start of the host
  Processors processors;
  Memory memory;
  std::map<std::string, Traffic> interfaces;
};

/// Throws `std::runtime_error` that names the file and what is wrong with it.
UtilizationSample ParseSample(const ProcTexts& texts, std::chrono::nanoseconds time);

/// Keeps the newest two samples and makes figures of them. Safe for use from several threads.
class Utilization {
 public:
  /// `read` answers the texts of now, or throws; `now` is the time since the start of the host.
  Utilization(std::function<ProcTexts()> read, std::function<std::chrono::nanoseconds()> now);

  /// Takes a sample, unless the newest one is less than half a second old. Throws what `read` and
  /// `ParseSample` throw, and has no samples then.
  void Sample();
  /// The figures of each of the resources "cpu", "memory" and "network" that is asked for. Takes a
  /// sample only if there is none, and throws as `Sample` does then.
  Json::Value Figures(const std::vector<std::string>& resources);

 private:
  void TakeSample();

  const std::function<ProcTexts()> read_;
  const std::function<std::chrono::nanoseconds()> now_;
  std::mutex mutex_;
  std::optional<UtilizationSample> older_;  // none: the start of the host
  std::optional<UtilizationSample> newest_;
};

}  // namespace quillon::platform
