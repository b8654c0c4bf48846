// Every change of the disk that an operation makes fails in turn, in every way.
#include <array>
#include <iostream>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "faults/campaign.h"
#include "faults/operations.h"

namespace quillon::test {
namespace {

struct Kind {
  Fault fault;
  const char* name;
};

constexpr std::array kKinds = {Kind{Fault::kInputOutput, "EIO"},
                               Kind{Fault::kFullDisk, "full disk"},
                               Kind{Fault::kShortWrite, "short write"}, Kind{Fault::kKill, "kill"}};

// The long run fails every change, the short one each of so many, beginning where the seed decides.
constexpr unsigned kStepOfShortRun = 3;

class WriteFaultsTest : public testing::TestWithParam<Operation> {};

// Makes one change after the other fail, until the operation makes none that could.
void FailInTurn(Trial& trial, const Kind& kind) {
  unsigned faults = 0;
  unsigned failures = 0;
  FaultPlan& plan = trial.host().plan();
  std::mt19937_64 random = RandomNumbers();
  const unsigned step = TheCampaign().is_long ? 1 : kStepOfShortRun;
  unsigned changes = 0;  // of a run in which nothing fails
  for (unsigned ordinal = 1 + static_cast<unsigned>(random() % step);; ordinal += step) {
    trial.host().Reset();
    plan.Set(kind.fault, ordinal);
    const Outcome outcome = trial.RunWithFaults();
    SCOPED_TRACE(fmt::format("{}, {} of {} changes, {}: exit code {}: {}", kind.name, ordinal,
                             plan.calls.load(), plan.what.data(), outcome.exit_code,
                             outcome.error));
    if (plan.failed == 0) {
      EXPECT_EQ(outcome.exit_code, 0);
      if (plan.calls < ordinal) {
        changes = plan.calls;
        break;
      }
      continue;
    }
    ++faults;
    failures += outcome.exit_code == 0 ? 0 : 1;
    trial.ExpectSoundness(outcome.exit_code == 0);
    if (kind.fault != Fault::kKill) {
      EXPECT_THAT(outcome.exit_code, testing::AnyOf(0, 1));
      EXPECT_EQ(outcome.exit_code == 0, outcome.error.empty());
    }
    trial.ExpectSuccessAtLast();
  }
  EXPECT_GT(changes, 0U) << "nothing that could fail was seen";
  std::cout << fmt::format("{}: {}: {} faults, {} of them made it fail\n", trial.operation().name,
                           kind.name, faults, failures);
}

TEST_P(WriteFaultsTest, NothingIsLostOrHalfDone) {
  Trial trial(GetParam());
  for (const Kind& kind : kKinds) {
    FailInTurn(trial, kind);
  }
}

INSTANTIATE_TEST_SUITE_P(, WriteFaultsTest, testing::ValuesIn(Operations()),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace quillon::test
