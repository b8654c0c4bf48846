#pragma once

#include <string>
#include <vector>

namespace quillon::bench {

/// What one run of a program cost.
struct Cost {
  double seconds;  ///< as the program itself says, or of the whole program when it says nothing
  double whole_seconds;  ///< from its start to its end
  double peak_mb;        ///< largest resident memory, MB
};

/// Smallest, middle and largest of several figures.
struct Spread {
  double lowest;
  double median;
  double highest;
};

Spread SpreadOf(std::vector<double> figures);

/// Two programs run in turn, several times: ours first, then the one it is held against.
struct Pair {
  std::vector<Cost> ours;
  std::vector<Cost> theirs;
};

/// Runs both in turn `rounds` times after one round that does not count. Throws when one of them
/// fails.
Pair RunPair(const std::vector<std::string>& ours, const std::vector<std::string>& theirs,
             int rounds);

/// The spread of ours/theirs, round by round, of one kind of cost.
Spread Ratio(const Pair& pair, double Cost::*figure);

}  // namespace quillon::bench
