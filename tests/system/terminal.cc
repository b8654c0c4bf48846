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

}  // namespace

Outcome RunOnTerminal(const std::vector<std::string>& arguments,
                      const std::vector<std::string>& environment, const std::string& typed) {
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
  if (::write(terminal, typed.data(), typed.size()) != static_cast<ssize_t>(typed.size())) {
    throw std::system_error(errno, std::generic_category(), "write to a terminal");
  }
  Outcome outcome{};
  std::array<char, 4096> chunk{};
  // The last program to leave a terminal ends it with EIO.
  for (ssize_t got = 0; (got = ::read(terminal, chunk.data(), chunk.size())) > 0;) {
    outcome.output.append(chunk.data(), static_cast<std::size_t>(got));
  }
  ::close(terminal);
  int status = 0;
  ::waitpid(pid, &status, 0);
  outcome.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return outcome;
}

}  // namespace quillon::test
