#pragma once

#include <cstdint>
#include <random>

namespace quillon::test {

/// What the campaign was asked to do.
struct Campaign {
  bool is_long = false;
  std::uint64_t seed = 0;
};

/// Set before the first test.
Campaign& TheCampaign();

/// A sequence of random numbers that the campaign's seed decides.
inline std::mt19937_64 RandomNumbers() { return std::mt19937_64(TheCampaign().seed); }

}  // namespace quillon::test
