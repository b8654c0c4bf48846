// Operations are killed at moments that are spread over all of their time.
#include <chrono>
#include <iostream>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "faults/campaign.h"
#include "faults/operations.h"

namespace quillon::test {
namespace {

using std::chrono::microseconds;
using Clock = std::chrono::steady_clock;

constexpr unsigned kKillsOfLongRun = 200;  // of each operation
constexpr unsigned kKillsOfShortRun = 12;

class KillTest : public testing::TestWithParam<Operation> {};

// How long it takes when nobody kills it, with what it leaves in the background.
microseconds TimeOf(Trial& trial) {
  constexpr int kRuns = 5;
  Clock::duration time{};
  for (int i = 0; i < kRuns; ++i) {
    trial.host().Reset();
    const auto begin = Clock::now();
    trial.host().Run(trial.arguments());
    time += Clock::now() - begin;
  }
  return std::chrono::duration_cast<microseconds>(time / kRuns);
}

TEST_P(KillTest, NothingIsLostOrHalfDone) {
  Trial trial(GetParam());
  const microseconds time = TimeOf(trial);
  const unsigned kills = TheCampaign().is_long ? kKillsOfLongRun : kKillsOfShortRun;
  std::mt19937_64 random = RandomNumbers();
  std::uniform_real_distribution<double> place(0, 1);
  unsigned killed = 0;
  unsigned runs = 0;
  for (; killed < kills && runs < 5 * kills; ++runs) {
    const microseconds after(static_cast<long>(static_cast<double>(time.count()) *
                                               (runs % kills + place(random)) / kills));
    SCOPED_TRACE(fmt::format("killed after {} of {} us", after.count(), time.count()));
    trial.host().Reset();
    killed += trial.host().RunAndKill(trial.arguments(), after) ? 1 : 0;
    trial.ExpectSoundness(false);
    trial.ExpectSuccessAtLast();
  }
  EXPECT_EQ(killed, kills);
  std::cout << fmt::format("{}: {} runs of {} us, {} of them killed before their end\n",
                           trial.operation().name, runs, time.count(), killed);
}

INSTANTIATE_TEST_SUITE_P(, KillTest, testing::ValuesIn(MainOperations()),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace quillon::test
