#pragma once

#include <string>
#include <utility>
#include <vector>

#include "measure.h"

namespace quillon::bench {

/// How far a ratio may go.
struct Target {
  enum Kind { kAtMost, kAtLeast, kNone };

  Target(double at_most) : ratio(at_most) {}  // NOLINT(google-explicit-constructor): most are such
  Target(Kind its_kind, double its_ratio) : kind(its_kind), ratio(its_ratio) {}

  bool IsMetBy(double measured) const {
    return kind == kAtLeast ? measured >= ratio : measured <= ratio;
  }

  Kind kind = kAtMost;
  double ratio;
};

/// A ratio that is there to be known and need not be any.
inline const Target kNoTarget{Target::kNone, 0};

struct Row {
  std::string what;
  Target target;
  Spread ratio;
  std::string ours;
  std::string theirs;
};

/// What was measured.
class Results {
 public:
  void Add(Row row) { rows_.push_back(std::move(row)); }
  /// One kind of what the runs of two programs cost.
  void Add(const std::string& what, Target target, const Runs& ours, const Runs& theirs,
           double Cost::*figure);

  /// How many times as fast ours is, at least.
  void AddTimesAsFast(const std::string& what, double at_least, const Runs& ours,
                      const Runs& theirs, double Cost::*figure);

  /// A table; without targets where the sizes are not those that they are stated for.
  void Print(bool has_targets) const;
  void WriteJson(const std::string& path) const;

 private:
  std::vector<Row> rows_;
};

}  // namespace quillon::bench
