#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <system_error>

#include <velamailserver/maillog.h>
#include <velamailserver/velasdk/popen.h>

#include "utils/file_descriptor.h"

namespace velamailserver::velasdk {

namespace {

using quillon::platform::FileDescriptor;

constexpr char kSourceFile[] = "platform/linux/sdk/popen";
constexpr int kStartFailedLine = 112;

constexpr char kNull[] = "/dev/null";
constexpr std::size_t kBufferSize = 65536;  // bytes; what a pipe holds

void Check(int error) {
  if (error != 0) {
    throw std::system_error(error, std::generic_category());
  }
}

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    Check(::pipe2(ends.data(), O_CLOEXEC) == 0 ? 0 : errno);
    read_end = FileDescriptor(ends[0]);
    write_end = FileDescriptor(ends[1]);
  }
  FileDescriptor read_end;
  FileDescriptor write_end;
};

// What the command does before it is executed.
class FileActions {
 public:
  FileActions() { Check(::posix_spawn_file_actions_init(&actions_)); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  ~FileActions() { ::posix_spawn_file_actions_destroy(&actions_); }

  // The output's copy is made first: the end of the pipe may itself be one of the three, when this
  // process has that closed.
  void Redirect(int output, bool has_standard_error) {
    Check(::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO));
    Check(::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, kNull, O_RDONLY, 0));
    if (!has_standard_error) {
      // Else the first file that the command opens gets its error messages.
      Check(::posix_spawn_file_actions_addopen(&actions_, STDERR_FILENO, kNull, O_WRONLY, 0));
    }
    Check(::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
  }

  // The caller's working directory may be one that even root cannot enter, on another host's disk.
  void LeaveWorkingDirectory() { Check(::posix_spawn_file_actions_addchdir_np(&actions_, "/")); }

  const posix_spawn_file_actions_t* Get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

// Signals as they are in a fresh process: a broken pipe must end a command, whatever this process
// does about that.
class FreshSignals {
 public:
  FreshSignals() {
    Check(::posix_spawnattr_init(&attributes_));
    sigset_t all;
    sigset_t none;
    ::sigfillset(&all);
    ::sigemptyset(&none);
    ::posix_spawnattr_setsigdefault(&attributes_, &all);
    ::posix_spawnattr_setsigmask(&attributes_, &none);
    ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  }
  FreshSignals(const FreshSignals&) = delete;
  FreshSignals& operator=(const FreshSignals&) = delete;
  ~FreshSignals() { ::posix_spawnattr_destroy(&attributes_); }

  const posix_spawnattr_t* Get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

pid_t Start(std::string command, std::vector<std::string> arguments, const FileActions& actions) {
  std::vector<char*> argv = {command.data()};
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  std::string path = "PATH=/usr/bin:/bin";
  std::string locale = "LC_ALL=C";
  const std::array<char*, 3> environment = {path.data(), locale.data(), nullptr};

  const FreshSignals signals;
  pid_t pid = -1;
  Check(::posix_spawn(&pid, command.c_str(), actions.Get(), signals.Get(), argv.data(),
                      environment.data()));
  return pid;
}

// Replaces the buffer's content by the next part of the output. False at its end.
bool Refill(int fd, std::string& buffer) {
  buffer.resize(kBufferSize);
  ssize_t got = 0;
  do {
    got = ::read(fd, buffer.data(), buffer.size());
  } while (got < 0 && errno == EINTR);
  buffer.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
  return got > 0;
}

}  // namespace

Popen::Popen(const std::string& command, const std::vector<std::string>& arguments) {
  try {
    const bool has_standard_error = ::fcntl(STDERR_FILENO, F_GETFD) >= 0;
    Pipe pipe;
    FileActions actions;
    actions.Redirect(pipe.write_end.Get(), has_standard_error);
    actions.LeaveWorkingDirectory();
    pid_ = Start(command, arguments, actions);
    fd_ = pipe.read_end.Release();
  } catch (const std::system_error& error) {
    maillog(3, "%s:%d cannot start %s: %s", kSourceFile, kStartFailedLine, command.c_str(),
            error.code().message().c_str());
  }
}

Popen::~Popen() {
  if (!IsOpen()) {
    return;
  }
  ::close(fd_);
  // Fails when this process ignores its children's ends: there is nothing to reap then.
  while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

bool Popen::GetLine(std::string& line) {
  line.clear();
  while (true) {
    const std::size_t newline = buffer_.find('\n', position_);
    const bool is_whole = newline != std::string::npos;
    const std::size_t end = is_whole ? newline + 1 : buffer_.size();
    line.append(buffer_, position_, end - position_);
    position_ = end;
    if (is_whole) {
      return true;
    }
    position_ = 0;
    if (!Refill(fd_, buffer_)) {
      return !line.empty();
    }
  }
}

}  // namespace velamailserver::velasdk
