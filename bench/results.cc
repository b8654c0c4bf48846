#include "results.h"

#include <fstream>
#include <utility>

#include <fmt/format.h>
#include <json/value.h>
#include <json/writer.h>

namespace quillon::bench {

namespace {

// The middle of what the runs of a program cost, with its unit.
std::string Median(const Runs& runs, double Cost::*figure) {
  std::vector<double> figures;
  figures.reserve(runs.size());
  for (const Cost& cost : runs) {
    figures.push_back(cost.*figure);
  }
  const double median = SpreadOf(std::move(figures)).median;
  return figure == &Cost::peak_mb ? fmt::format("{:.1f} MB", median)
                                  : fmt::format("{:.3f} s", median);
}

std::string TargetText(const Target& target) {
  switch (target.kind) {
    case Target::kAtMost:
      return fmt::format("{:.2f}", target.ratio);
    case Target::kAtLeast:
      return fmt::format(">={:.2f}", target.ratio);
    default:
      return "-";
  }
}

}  // namespace

void Results::Add(const std::string& what, Target target, const Runs& ours, const Runs& theirs,
                  double Cost::*figure) {
  Add({what, target, Ratio(ours, theirs, figure), Median(ours, figure), Median(theirs, figure)});
}

void Results::AddTimesAsFast(const std::string& what, double at_least, const Runs& ours,
                             const Runs& theirs, double Cost::*figure) {
  // NOLINTNEXTLINE(readability-suspicious-call-argument): more is better here
  const Spread times = Ratio(theirs, ours, figure);
  Add({what, {Target::kAtLeast, at_least}, times, Median(ours, figure), Median(theirs, figure)});
}

void Results::Print(bool has_targets) const {
  fmt::print("{:<54} {:>10} {:>10} {:>7} {:>13} {:>7}\n", "what", "ours", "plain", "ratio",
             "(min - max)", "target");
  for (const Row& row : rows_) {
    const Target& target = has_targets ? row.target : kNoTarget;
    fmt::print("{:<54} {:>10} {:>10} {:>7.2f} {:>13} {:>7} {}\n", row.what, row.ours, row.theirs,
               row.ratio.median,
               fmt::format("({:.2f} - {:.2f})", row.ratio.lowest, row.ratio.highest),
               TargetText(target),
               target.kind == Target::kNone       ? ""
               : target.IsMetBy(row.ratio.median) ? "met"
                                                  : "MISSED");
  }
}

void Results::WriteJson(const std::string& path) const {
  Json::Value document(Json::arrayValue);
  for (const Row& row : rows_) {
    Json::Value& entry = document.append(Json::Value(Json::objectValue));
    entry["what"] = row.what;
    entry["ours"] = row.ours;
    entry["plain"] = row.theirs;
    entry["ratio"] = row.ratio.median;
    entry["lowest_ratio"] = row.ratio.lowest;
    entry["highest_ratio"] = row.ratio.highest;
    if (row.target.kind != Target::kNone) {
      entry[row.target.kind == Target::kAtLeast ? "target_at_least" : "target"] = row.target.ratio;
    }
  }
  std::ofstream(path) << document << '\n';
}

}  // namespace quillon::bench
