#include "webapi/utilization.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "utils/decimal.h"
#include "utils/saturating_add.h"

namespace quillon::platform {

namespace {

using std::chrono::nanoseconds;
using Processors = UtilizationSample::Processors;
using Memory = UtilizationSample::Memory;
using Traffic = UtilizationSample::Traffic;
using Interfaces = std::map<std::string, Traffic>;
using Words = std::vector<std::string_view>;

constexpr nanoseconds kShortestInterval = std::chrono::milliseconds(500);
constexpr char kLoopback[] = "lo";

Words SplitAt(std::string_view separators, std::string_view text) {
  Words words;
  for (auto begin = text.find_first_not_of(separators); begin != std::string_view::npos;) {
    const auto end = std::min(text.find_first_of(separators, begin), text.size());
    words.push_back(text.substr(begin, end - begin));
    begin = text.find_first_not_of(separators, end);
  }
  return words;
}

Words LinesOf(std::string_view text) { return SplitAt("\n", text); }
Words WordsOf(std::string_view line) { return SplitAt(" \t", line); }

unsigned long long NumberAt(const Words& words, std::size_t index, const char* place) {
  const auto number = index < words.size() ? ParseDecimal<unsigned long long>(words[index])
                                           : std::optional<unsigned long long>();
  if (!number) {
    throw std::runtime_error(std::string(place) + ": a number is missing");
  }
  return *number;
}

// The time of guests is counted as the user's already.
Processors ParseProcessors(std::string_view text) {
  constexpr char kPlace[] = "/proc/stat";
  for (const std::string_view line : LinesOf(text)) {
    const Words words = WordsOf(line);
    if (words.empty() || words[0] != "cpu") {
      continue;
    }
    const auto ticks = [&](std::size_t index) { return NumberAt(words, index, kPlace); };
    Processors processors;
    processors.user = SaturatingAdd(ticks(1), ticks(2));
    processors.system = SaturatingAdd(ticks(3), SaturatingAdd(ticks(6), ticks(7)));
    processors.idle = ticks(4);
    processors.other = SaturatingAdd(ticks(5), ticks(8));
    return processors;
  }
  throw std::runtime_error(std::string(kPlace) + ": no line of all processors");
}

Memory ParseMemory(std::string_view text) {
  constexpr char kPlace[] = "/proc/meminfo";
  constexpr unsigned long long kKilobyte = 1024;
  Memory memory;
  std::map<std::string_view, unsigned long long*> wanted = {
      {"MemTotal:", &memory.total},       {"MemAvailable:", &memory.available},
      {"MemFree:", &memory.free},         {"Cached:", &memory.cached},
      {"SwapTotal:", &memory.swap_total}, {"SwapFree:", &memory.swap_free}};
  for (const std::string_view line : LinesOf(text)) {
    const Words words = WordsOf(line);
    const auto found = words.empty() ? wanted.end() : wanted.find(words[0]);
    if (found != wanted.end()) {
      constexpr auto kMost = std::numeric_limits<unsigned long long>::max() / kKilobyte;
      *found->second = std::min(NumberAt(words, 1, kPlace), kMost) * kKilobyte;
      wanted.erase(found);
    }
  }
  if (!wanted.empty()) {
    throw std::runtime_error(std::string(kPlace) + ": no line " +
                             std::string(wanted.begin()->first));
  }
  return memory;
}

// Of an interface's line, NAME:RX_BYTES … TX_BYTES …; the titles above have no colon.
Interfaces ParseInterfaces(std::string_view text) {
  constexpr std::size_t kRx = 0;
  constexpr std::size_t kTx = 8;
  constexpr char kPlace[] = "/proc/net/dev";
  Interfaces interfaces;
  for (const std::string_view line : LinesOf(text)) {
    const auto colon = line.find(':');
    const Words name = WordsOf(line.substr(0, colon));
    if (colon == std::string_view::npos || name.empty()) {
      continue;
    }
    const Words counters = WordsOf(line.substr(colon + 1));
    interfaces[std::string(name[0])] = {NumberAt(counters, kRx, kPlace),
                                        NumberAt(counters, kTx, kPlace)};
  }
  return interfaces;
}

unsigned long long Growth(unsigned long long older, unsigned long long newer) {
  return newer > older ? newer - older : 0;
}

// Some drivers count in 32 bits. Only a counter that was close to their end and is close to their
// beginning has passed it; any other that fell began anew, and there is no telling what it missed.
unsigned long long TrafficGrowth(unsigned long long older, unsigned long long newer) {
  constexpr unsigned long long kEnd = 1ULL << 32U;
  constexpr unsigned long long kClose = 1ULL << 28U;
  const bool has_wrapped = older < kEnd && older >= kEnd - kClose && newer < kClose;
  return has_wrapped ? newer + kEnd - older : Growth(older, newer);
}

int Percentage(double part, double whole) {
  return whole > 0 ? static_cast<int>(std::lround(100 * part / whole)) : 0;
}

// Rounded as sums, so that they are exact together, too, and never above 100.
Json::Value ProcessorFigures(const Processors& older, const Processors& newest) {
  const auto user = static_cast<double>(Growth(older.user, newest.user));
  const double with_system = user + static_cast<double>(Growth(older.system, newest.system));
  const double with_other = with_system + static_cast<double>(Growth(older.other, newest.other));
  const double all = with_other + static_cast<double>(Growth(older.idle, newest.idle));
  Json::Value figures;
  figures["user_load"] = Percentage(user, all);
  figures["system_load"] = Percentage(with_system, all) - Percentage(user, all);
  figures["other_load"] = Percentage(with_other, all) - Percentage(with_system, all);
  return figures;
}

Json::Value MemoryFigures(const Memory& memory) {
  Json::Value figures;
  figures["real_usage"] = Percentage(static_cast<double>(Growth(memory.available, memory.total)),
                                     static_cast<double>(memory.total));
  figures["total_bytes"] = Json::UInt64{memory.total};
  figures["available_bytes"] = Json::UInt64{memory.available};
  figures["free_bytes"] = Json::UInt64{memory.free};
  figures["cached_bytes"] = Json::UInt64{memory.cached};
  figures["swap_total_bytes"] = Json::UInt64{memory.swap_total};
  figures["swap_free_bytes"] = Json::UInt64{memory.swap_free};
  return figures;
}

// What passed through the interfaces of `newest`. One that has come since the older sample brings a
// counter of unknown age: nothing is known of it yet. At the start of the host all were at 0.
Interfaces Passed(const std::optional<UtilizationSample>& older, const Interfaces& newest) {
  Interfaces passed;
  for (const auto& [name, traffic] : newest) {
    Traffic before = older ? traffic : Traffic();
    if (older) {
      if (const auto found = older->interfaces.find(name); found != older->interfaces.end()) {
        before = found->second;
      }
    }
    passed[name] = {TrafficGrowth(before.rx, traffic.rx), TrafficGrowth(before.tx, traffic.tx)};
  }
  return passed;
}

int Rate(unsigned long long bytes, nanoseconds interval) {
  const double seconds = std::chrono::duration<double>(interval).count();
  return static_cast<int>(
      std::min<double>(static_cast<double>(bytes) / seconds, std::numeric_limits<int>::max()));
}

Json::Value InterfaceFigures(const std::string& name, const Traffic& passed, nanoseconds interval) {
  Json::Value figures;
  figures["device"] = name;
  figures["rx"] = Rate(passed.rx, interval);
  figures["tx"] = Rate(passed.tx, interval);
  return figures;
}

Json::Value NetworkFigures(const Interfaces& interfaces, nanoseconds interval) {
  Traffic total;
  for (const auto& [name, passed] : interfaces) {
    if (name != kLoopback) {
      total.rx = SaturatingAdd(total.rx, passed.rx);
      total.tx = SaturatingAdd(total.tx, passed.tx);
    }
  }
  Json::Value figures(Json::arrayValue);
  figures.append(InterfaceFigures("total", total, interval));
  for (const auto& [name, passed] : interfaces) {
    figures.append(InterfaceFigures(name, passed, interval));
  }
  return figures;
}

}  // namespace

UtilizationSample ParseSample(const ProcTexts& texts, nanoseconds time) {
  UtilizationSample sample;
  sample.time = time;
  sample.processors = ParseProcessors(texts.stat);
  sample.memory = ParseMemory(texts.meminfo);
  sample.interfaces = ParseInterfaces(texts.net_dev);
  return sample;
}

Utilization::Utilization(std::function<ProcTexts()> read, std::function<nanoseconds()> now)
    : read_(std::move(read)), now_(std::move(now)) {}

void Utilization::Sample() {
  const std::lock_guard lock(mutex_);
  TakeSample();
}

Json::Value Utilization::Figures(const std::vector<std::string>& resources) {
  const std::lock_guard lock(mutex_);
  if (!newest_) {
    TakeSample();
  }
  const UtilizationSample& older = older_ ? *older_ : UtilizationSample();
  const nanoseconds interval = std::max(newest_->time - older.time, kShortestInterval);
  Json::Value figures(Json::objectValue);
  for (const std::string& resource : resources) {
    figures[resource] = resource == "cpu" ? ProcessorFigures(older.processors, newest_->processors)
                        : resource == "memory"
                            ? MemoryFigures(newest_->memory)
                            : NetworkFigures(Passed(older_, newest_->interfaces), interval);
  }
  return figures;
}

void Utilization::TakeSample() {
  const nanoseconds now = now_();
  if (newest_ && now - newest_->time < kShortestInterval) {
    return;
  }
  older_ = std::exchange(newest_, std::nullopt);
  newest_ = ParseSample(read_(), now);
}

}  // namespace quillon::platform
