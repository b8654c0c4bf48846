#include "load.h"

#include <sstream>
#include <stdexcept>

#include <fmt/format.h>

#include "support/program.h"

namespace quillon::bench {

Load RunLoad(const std::string& script, const LoadOptions& options) {
  std::vector<std::string> command = {"wrk",
                                      "--threads=1",
                                      fmt::format("--connections={}", options.connections),
                                      fmt::format("--duration={}s", options.seconds),
                                      "--script=" + script,
                                      options.url,
                                      "--",
                                      std::to_string(options.requests),
                                      options.token_file};
  command.insert(command.end(), options.bodies.begin(), options.bodies.end());
  const test::Outcome outcome = test::Run(command);

  // What the script prints is the last line.
  const auto last_line = outcome.output.rfind('\n', outcome.output.size() - 2) + 1;
  std::istringstream figures(outcome.output.substr(last_line));
  Load load{};
  double seconds = 0;
  unsigned long failures = 0;
  if (outcome.exit_code != 0 || outcome.output.size() < 2 ||
      !(figures >> load.requests >> seconds >> load.p99_ms >> failures) || failures != 0 ||
      load.requests == 0) {
    throw std::runtime_error("wrk: " + outcome.output + outcome.error);
  }
  load.requests_per_second = static_cast<double>(load.requests) / seconds;
  return load;
}

}  // namespace quillon::bench
