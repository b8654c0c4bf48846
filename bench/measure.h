#pragma once

#include <functional>
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

/// A program and its arguments.
using Command = std::vector<std::string>;

/// What the runs of one program cost, one after the other.
using Runs = std::vector<Cost>;

/// Runs the programs in turn, `rounds` times after one round that does not count, and answers the
/// runs of each. `prepare` is called before every run, at its own cost. Throws when one of them
/// fails.
std::vector<Runs> RunInTurn(
    const std::vector<Command>& commands, int rounds, const std::function<void()>& prepare = [] {});

/// The spread of ours/theirs, round by round, of one kind of cost.
Spread Ratio(const Runs& ours, const Runs& theirs, double Cost::*figure);

}  // namespace quillon::bench
