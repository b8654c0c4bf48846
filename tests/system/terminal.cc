#include "system/terminal.h"

#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace quillon::test {

namespace {

// env(1) sets the environment.
[[noreturn]] void Execute(const std::vector<std::string>& arguments,
                          const std::vector<std::string>& environment) {
  std::vector<std::string> command = {"env"};
  command.insert(command.end(), environment.begin(), environment.end());
  command.insert(command.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv(command.size() + 1);
  std::transform(command.begin(), command.end(), argv.begin(),
                 [](std::string& argument) { return argument.data(); });
  ::execvp(argv[0], argv.data());
  ::_exit(127);
}

// Answers false when the last program has left the terminal, which ends it with EIO.
bool ReadOn(int terminal, std::string& output) {
  std::array<char, 4096> chunk{};
  const ssize_t got = ::read(terminal, chunk.data(), chunk.size());
  output.append(chunk.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
  return got > 0;
}

void Type(int terminal, const std::string& text) {
  if (::write(terminal, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::system_error(errno, std::generic_category(), "write to a terminal");
  }
}

}  // namespace

Outcome RunOnTerminal(const std::vector<std::string>& arguments,
                      const std::vector<std::string>& environment, const std::string& typed,
                      const std::function<void()>& when_asked) {
  winsize size{};
  size.ws_row = 24;
  size.ws_col = 80;
  int terminal = -1;
  const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, &size);
  if (pid < 0) {
    throw std::system_error(errno, std::generic_category(), "forkpty");
  }
  if (pid == 0) {
    Execute(arguments, environment);
  }
  Outcome outcome{};
  if (when_asked) {
    while (!outcome.output.ends_with("? [y/N] ") && ReadOn(terminal, outcome.output)) {
    }
    when_asked();
  }
  Type(terminal, typed);
  while (ReadOn(terminal, outcome.output)) {
  }
  ::close(terminal);
  int status = 0;
  ::waitpid(pid, &status, 0);
  outcome.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return outcome;
}

}  // namespace quillon::test
