#pragma once

#include <cstddef>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <typeinfo>
#include <vector>

#include <gmock/gmock.h>
#include <json/value.h>

#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "recording_platform/world.h"

// Operations whose platform fails in the middle of them.
namespace quillon::test {

using Lines = std::vector<std::string>;

/// What an operation threw, down to every detail.
inline std::string Thrown(const std::function<void()>& operation) {
  using velamailserver::LogException;
  try {
    operation();
  } catch (const LogException& exception) {
    return "LogException " + std::to_string(exception.code()) + " " + exception.file() + ":" +
           std::to_string(exception.line()) + " " + exception.what();
  } catch (const std::exception& exception) {
    return std::string(typeid(exception).name()) + " " + exception.what();
  } catch (int number) {
    return "int " + std::to_string(number);
  }
  return "nothing";
}

/// A way in which the platform fails.
struct WayToFail {
  recording::Failure failure;
  Lines log;  // the lines that it leaves in the log
  bool is_runtime_error;
};

inline std::string ThrownBy(const WayToFail& way) {
  const recording::Pause pause;
  return Thrown(way.failure);
}

inline std::vector<WayToFail> WaysToFail() {
  using recording::Throw;
  using velamailserver::LogException;
  using velamailserver::velasdk::FileLockHeld;
  return {
      {Throw<LogException>(velamailserver::ERR_DB_SELECT, "broken", 4L, "platform", 9),
       {R"(maillog(4, "platform:9 (4009) failed to execute select query: broken"))"},
       true},
      {Throw<FileLockHeld>("held"), {}, true},
      {Throw<std::runtime_error>("broken"), {}, true},
      {Throw<std::system_error>(std::make_error_code(std::errc::io_error), "broken"), {}, true},
      {Throw<std::out_of_range>("broken"), {}, false},
      {Throw<Json::LogicError>("broken"), {}, false},
      {Throw<std::exception>(), {}, false},
      {Throw<std::bad_alloc>(), {}, false},
      {Throw<int>(7), {}, false},
  };
}

/// A line of the transcript of an operation that succeeds, and what is released if it fails there.
struct Step {
  std::string line;
  Lines released_on_failure = {};
  bool can_fail = true;
};

inline Lines LinesOf(const std::vector<Step>& steps) {
  Lines lines;
  for (const Step& step : steps) {
    lines.push_back(step.line);
  }
  return lines;
}

inline std::vector<Step> Concatenated(std::vector<Step> steps, const std::vector<Step>& more) {
  steps.insert(steps.end(), more.begin(), more.end());
  return steps;
}

/// An operation that met a failure.
struct FailedRun {
  std::size_t step;  // the failing one
  const WayToFail& way;
  std::string thrown;
  Lines due;  // the transcript, if the exception passes through
};

/// The calls among `steps` fail in turn, in every way, the first `skipped` of them excepted, each
/// time in the world as it is now and is again afterwards. `operation` works on what `prepare` has
/// made, without any record of that. `check` is called with it, and with the `FailedRun`.
template <typename Prepare, typename Operation, typename Check>
void FailInTurn(const std::vector<Step>& steps, int skipped, Prepare prepare, Operation operation,
                Check check) {
  const recording::World script = recording::TheWorld();
  const auto prepare_silently = [&] {
    const recording::Pause pause;
    return prepare();
  };
  Lines until;
  int number = 0;
  for (std::size_t i = 0; i < steps.size(); ++i) {
    until.push_back(steps[i].line);
    if (!steps[i].can_fail || ++number <= skipped) {
      continue;
    }
    for (const WayToFail& way : WaysToFail()) {
      SCOPED_TRACE(std::to_string(number) + ": " + steps[i].line + ": " + ThrownBy(way));
      recording::TheWorld() = script;
      auto subject = prepare_silently();
      recording::TheWorld().FailCall(number, way.failure);
      FailedRun run{i, way, Thrown([&] { operation(subject); }), until};
      run.due.insert(run.due.end(), way.log.begin(), way.log.end());
      run.due.insert(run.due.end(), steps[i].released_on_failure.begin(),
                     steps[i].released_on_failure.end());
      check(subject, run);
    }
  }
  recording::TheWorld() = script;
  EXPECT_GT(number, skipped);
}

/// The exception arrived as it was thrown, and nothing was called after it but what releases.
inline void ExpectPassedThrough(const FailedRun& run) {
  EXPECT_EQ(run.thrown, ThrownBy(run.way));
  EXPECT_THAT(recording::TheWorld().transcript, testing::ElementsAreArray(run.due));
}

/// Every failure passes through an operation that `steps` are the whole of.
template <typename Operation>
void ExpectPassesThrough(const std::vector<Step>& steps, Operation operation) {
  FailInTurn(
      steps, 0, [] { return 0; }, [&](int) { operation(); },
      [](int, const FailedRun& run) { ExpectPassedThrough(run); });
}

}  // namespace quillon::test
