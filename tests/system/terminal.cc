#include "system/terminal.h"

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
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

// A program on a terminal of its own.
class Terminal {
 public:
  Terminal(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
    winsize size{};
    size.ws_row = 24;
    size.ws_col = 80;
    pid_ = ::forkpty(&terminal_, nullptr, nullptr, &size);
    if (pid_ < 0) {
      throw std::system_error(errno, std::generic_category(), "forkpty");
    }
    if (pid_ == 0) {
      Execute(arguments, environment);
    }
  }

  void Type(const std::string& text) const {
    if (::write(terminal_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      throw std::system_error(errno, std::generic_category(), "write to a terminal");
    }
  }

  // False when the program has ended without showing the text.
  bool WaitFor(const std::string& text) {
    while (true) {
      const auto found = output_.find(text, used_);
      if (found != std::string::npos) {
        used_ = found + text.size();
        return true;
      }
      if (!Read()) {
        return false;
      }
    }
  }

  Outcome Finish() {
    while (Read()) {
    }
    ::close(terminal_);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    Outcome outcome{};
    outcome.output = output_;
    outcome.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
  }

 private:
  // The last program to leave a terminal ends it with EIO. One that says nothing for a minute
  // hangs.
  bool Read() {
    constexpr int kPatience = 60000;  // milliseconds
    pollfd waiting{terminal_, POLLIN, 0};
    if (::poll(&waiting, 1, kPatience) == 0) {
      ::kill(pid_, SIGKILL);
      output_ += "\n(ended after a minute of silence)";
    }
    std::array<char, 4096> chunk{};
    const ssize_t got = ::read(terminal_, chunk.data(), chunk.size());
    if (got <= 0) {
      return false;
    }
    output_.append(chunk.data(), static_cast<std::size_t>(got));
    return true;
  }

  int terminal_ = -1;
  pid_t pid_ = -1;
  std::string output_;
  std::size_t used_ = 0;
};

}  // namespace

Outcome RunOnTerminal(const std::vector<std::string>& arguments,
                      const std::vector<std::string>& environment, const std::string& typed) {
  Terminal terminal(arguments, environment);
  terminal.Type(typed);
  return terminal.Finish();
}

Outcome Converse(const std::vector<std::string>& arguments,
                 const std::vector<Exchange>& exchanges) {
  Terminal terminal(arguments, {});
  for (const Exchange& exchange : exchanges) {
    if (!terminal.WaitFor(exchange.prompt)) {
      break;
    }
    if (exchange.when_asked) {
      exchange.when_asked();
    }
    terminal.Type(exchange.typed);
  }
  return terminal.Finish();
}

std::string AsOnTerminal(const std::string& text) {
  std::string shown;
  for (const char c : text) {
    shown += c == '\n' ? "\r\n" : std::string(1, c);
  }
  return shown;
}

}  // namespace quillon::test
