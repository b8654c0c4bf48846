#include "password.h"

#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include <quillon/platform/file_descriptor.h>
#include <quillon/platform/printable.h>

namespace {

using quillon::platform::FileDescriptor;
using quillon::platform::Secret;

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Holds back what would end or stop the process, and lets it through at the end.
class DelayedSignals {
 public:
  DelayedSignals() {
    ::sigemptyset(&signals_);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) {
      ::sigaddset(&signals_, number);
    }
    ::sigprocmask(SIG_BLOCK, &signals_, &before_);
  }
  DelayedSignals(const DelayedSignals&) = delete;
  DelayedSignals& operator=(const DelayedSignals&) = delete;
  ~DelayedSignals() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

  // Readable while one of them waits. It is not read, or the signal would be gone.
  FileDescriptor Watch() const {
    FileDescriptor fd(::signalfd(-1, &signals_, SFD_CLOEXEC));
    if (!fd.IsOpen()) {
      Fail("signalfd");
    }
    return fd;
  }

 private:
  sigset_t signals_{};
  sigset_t before_{};
};

// A terminal that does not show what is typed, but for the end of the line.
class HiddenInput {
 public:
  explicit HiddenInput(int terminal) : terminal_(terminal) {
    if (::tcgetattr(terminal_, &before_) != 0) {
      Fail("cannot hide what is typed");
    }
    termios hidden = before_;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    hidden.c_lflag |= ICANON | ECHONL;
    if (::tcsetattr(terminal_, TCSAFLUSH, &hidden) != 0) {
      Fail("cannot hide what is typed");
    }
  }
  HiddenInput(const HiddenInput&) = delete;
  HiddenInput& operator=(const HiddenInput&) = delete;
  ~HiddenInput() { ::tcsetattr(terminal_, TCSAFLUSH, &before_); }

 private:
  int terminal_;
  termios before_{};
};

// Whether a line can be read before a signal comes.
bool WaitForLine(int terminal, const DelayedSignals& signals) {
  const FileDescriptor signal = signals.Watch();
  std::array<pollfd, 2> sources = {pollfd{signal.Get(), POLLIN, 0}, pollfd{terminal, POLLIN, 0}};
  while (::poll(sources.data(), sources.size(), -1) < 0) {
    if (errno != EINTR) {
      Fail("cannot wait for the password");
    }
  }
  return sources[0].revents == 0;
}

void Show(int terminal, const std::string& text) {
  if (::write(terminal, text.data(), text.size()) < 0) {
    Fail("cannot ask for the password");
  }
}

// Nothing when a signal came and did not end the process: it was stopped and goes on, for example.
std::optional<Secret> Ask(int terminal, const std::string& prompt) {
  const DelayedSignals signals;
  const HiddenInput hidden(terminal);
  Show(terminal, prompt);
  if (!WaitForLine(terminal, signals)) {
    Show(terminal, "\n");
    return std::nullopt;
  }
  return ReadPassword(terminal);
}

// What has been read of a line.
class Line {
 public:
  Line() = default;
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;
  ~Line() { ::explicit_bzero(text_.data(), text_.size()); }

  void Append(char c) {
    if (length_ == text_.size()) {
      throw std::runtime_error("the password is too long");
    }
    text_[length_++] = c;
  }
  std::string_view Text() const { return {text_.data(), length_}; }

 private:
  std::array<char, kLongestPassword> text_{};
  std::size_t length_ = 0;
};

// Whether there was another character.
bool ReadCharacter(int fd, char& c) {
  while (true) {
    const ssize_t got = ::read(fd, &c, 1);
    if (got >= 0) {
      return got == 1;
    }
    if (errno != EINTR) {
      Fail("cannot read the password");
    }
  }
}

}  // namespace

Secret AskPassword(const std::string& prompt) {
  const FileDescriptor terminal(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!terminal.IsOpen()) {
    throw std::runtime_error("there is no terminal to ask for a password on");
  }
  const std::string text = quillon::platform::Printable(prompt);
  while (true) {
    if (auto password = Ask(terminal.Get(), text)) {
      return std::move(*password);
    }
  }
}

Secret AskNewPassword(const std::string& prompt) {
  Secret password = AskPassword(prompt + ": ");
  if (AskPassword(prompt + " again: ").Get() != password.Get()) {
    throw std::runtime_error("the two passwords differ");
  }
  return password;
}

Secret ReadPassword(int fd) {
  Line line;
  char c = 0;
  while (ReadCharacter(fd, c) && c != '\n') {
    if (c == '\0') {
      throw std::runtime_error("the password holds a NUL byte");
    }
    line.Append(c);
  }
  if (line.Text().empty()) {
    throw std::runtime_error("no password was given");
  }
  return Secret(line.Text());
}

Secret ReadPasswordFile(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (!file.IsOpen() || ::fstat(file.Get(), &status) != 0) {
    Fail(path);
  }
  // A pipe, which a shell makes of <(COMMAND), is private anyway.
  const bool is_file = S_ISREG(status.st_mode);
  if (is_file && status.st_uid != ::geteuid() && status.st_uid != 0) {
    throw std::runtime_error(path + ": belongs to another user, it is not used");
  }
  if (is_file && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw std::runtime_error(path + ": others may read or write this file, it is not used");
  }
  return ReadPassword(file.Get());
}
