#include "support/program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace quillon::test {

namespace {

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Runs in the child: never returns.
[[noreturn]] void Execute(const std::vector<std::string>& arguments,
                          const std::vector<std::string>& environment) {
  std::signal(SIGPIPE, SIG_DFL);  // what is ignored stays so in the program
  for (const std::string& setting : environment) {
    const auto equals = setting.find('=');
    ::setenv(setting.substr(0, equals).c_str(), setting.substr(equals + 1).c_str(), 1);
  }
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  ::execvp(argv[0], argv.data());
  ::_exit(127);
}

struct Pipe {
  Pipe() {
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
      Fail("pipe");
    }
  }
  std::array<int, 2> ends{};
};

int Wait(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      Fail("waitpid");
    }
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

Outcome Run(const std::vector<std::string>& arguments, const std::string& input,
            const std::vector<std::string>& environment) {
  std::signal(SIGPIPE, SIG_IGN);  // a program need not read all of its input
  Pipe in;
  Pipe out;
  Pipe error;
  const pid_t pid = ::fork();
  if (pid < 0) {
    Fail("fork");
  }
  if (pid == 0) {
    ::dup2(in.ends[0], STDIN_FILENO);
    ::dup2(out.ends[1], STDOUT_FILENO);
    ::dup2(error.ends[1], STDERR_FILENO);
    Execute(arguments, environment);
  }
  ::close(in.ends[0]);
  ::close(out.ends[1]);
  ::close(error.ends[1]);

  Outcome outcome{};
  std::thread writer([&] {
    const char* rest = input.data();
    std::size_t length = input.size();
    while (length > 0) {
      const ssize_t written = ::write(in.ends[1], rest, length);
      if (written < 0) {
        break;  // the program does not read all of its input
      }
      rest += written;
      length -= static_cast<std::size_t>(written);
    }
    ::close(in.ends[1]);
  });

  std::array<pollfd, 2> open = {pollfd{out.ends[0], POLLIN, 0}, pollfd{error.ends[0], POLLIN, 0}};
  const std::array<std::string*, 2> texts = {&outcome.output, &outcome.error};
  while (open[0].fd >= 0 || open[1].fd >= 0) {
    ::poll(open.data(), open.size(), -1);
    for (std::size_t i = 0; i < open.size(); ++i) {
      if (open[i].fd < 0 || open[i].revents == 0) {
        continue;
      }
      std::array<char, 65536> chunk{};
      const ssize_t got = ::read(open[i].fd, chunk.data(), chunk.size());
      if (got > 0) {
        texts[i]->append(chunk.data(), static_cast<std::size_t>(got));
      } else {
        ::close(open[i].fd);
        open[i].fd = -1;
      }
    }
  }
  writer.join();
  outcome.exit_code = Wait(pid);
  if (outcome.exit_code == 127 && outcome.output.empty() && outcome.error.empty()) {
    throw std::runtime_error("cannot start " + arguments.front());
  }
  return outcome;
}

BackgroundProgram::BackgroundProgram(const std::vector<std::string>& arguments,
                                     const std::string& log)
    : pid_(::fork()) {
  if (pid_ < 0) {
    Fail("fork");
  }
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int null = ::open("/dev/null", O_RDONLY);
    const int file = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::dup2(null, STDIN_FILENO);
    ::dup2(file, STDOUT_FILENO);
    ::dup2(file, STDERR_FILENO);
    Execute(arguments, {});
  }
}

BackgroundProgram::~BackgroundProgram() { Stop(); }

bool BackgroundProgram::IsRunning() {
  if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == pid_) {
    pid_ = -1;
  }
  return pid_ > 0;
}

void BackgroundProgram::Freeze() const { Signal(SIGSTOP); }

void BackgroundProgram::Thaw() const { Signal(SIGCONT); }

// Without a program the number would mean every process there is.
void BackgroundProgram::Signal(int number) const {
  if (pid_ > 0) {
    ::kill(pid_, number);
  }
}

void BackgroundProgram::Stop() {
  if (!IsRunning()) {
    return;
  }
  Thaw();
  Signal(SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (IsRunning() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (IsRunning()) {
    Signal(SIGKILL);
    Wait(pid_);
    pid_ = -1;
  }
}

}  // namespace quillon::test
