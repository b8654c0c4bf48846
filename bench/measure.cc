#include "measure.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace quillon::bench {

namespace {

Cost RunOnce(const Command& arguments) {
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = ::fork();
  if (pid < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
  if (pid == 0) {
    ::dup2(pipe[1], STDOUT_FILENO);
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
      argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(pipe[1]);
  std::string output;
  std::array<char, 4096> chunk{};
  for (ssize_t got = 0; (got = ::read(pipe[0], chunk.data(), chunk.size())) > 0;) {
    output.append(chunk.data(), static_cast<std::size_t>(got));
  }
  ::close(pipe[0]);
  int status = 0;
  struct rusage used {};
  ::wait4(pid, &status, 0, &used);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  if (status != 0) {
    throw std::runtime_error(arguments.front() + " failed");
  }
  const bool says_time =
      output.find('.') != std::string::npos && output.find('\t') == std::string::npos;
  return {says_time ? std::strtod(output.c_str(), nullptr) : took.count(), took.count(),
          static_cast<double>(used.ru_maxrss) / 1024};
}

}  // namespace

Spread SpreadOf(std::vector<double> figures) {
  std::sort(figures.begin(), figures.end());
  return {figures.front(), figures[figures.size() / 2], figures.back()};
}

std::vector<Runs> RunInTurn(const std::vector<Command>& commands, int rounds,
                            const std::function<void()>& prepare) {
  for (const Command& command : commands) {
    prepare();
    RunOnce(command);
  }
  std::vector<Runs> runs(commands.size());
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < commands.size(); ++i) {
      prepare();
      runs[i].push_back(RunOnce(commands[i]));
    }
  }
  return runs;
}

Spread Ratio(const Runs& ours, const Runs& theirs, double Cost::*figure) {
  std::vector<double> ratios;
  ratios.reserve(ours.size());
  for (std::size_t round = 0; round < ours.size(); ++round) {
    ratios.push_back(ours[round].*figure / theirs[round].*figure);
  }
  return SpreadOf(std::move(ratios));
}

}  // namespace quillon::bench
