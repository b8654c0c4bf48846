#include "faults/worker.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "descriptors.h"

namespace quillon::test {

namespace {

constexpr int kPatience = 30'000;  // milliseconds

// Runs in the child: never returns.
[[noreturn]] void Execute(int socket, const std::string& configuration_file,
                          const std::vector<std::string>& environment) {
  constexpr int kOutOfTheWay = 100;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int kept = ::fcntl(socket, F_DUPFD, kOutOfTheWay);
  const int text = ::fcntl(::open(configuration_file.c_str(), O_RDONLY), F_DUPFD, kOutOfTheWay);
  ::dup2(kept, webapid::kSupervisorSocket);
  ::dup2(text, webapid::kConfigurationText);
  ::close_range(webapid::kConfigurationText + 1, ~0U, 0);
  for (const std::string& setting : environment) {
    const auto equals = setting.find('=');
    ::setenv(setting.substr(0, equals).c_str(), setting.substr(equals + 1).c_str(), 1);
  }
  // What it says when an exception ends it is not of interest.
  ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
  ::execl(WORKER, WORKER, configuration_file.c_str(), nullptr);
  ::_exit(127);
}

}  // namespace

Worker::Worker(const std::string& configuration_file, const std::vector<std::string>& environment) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  socket_ = platform::FileDescriptor(ends[0]);
  const platform::FileDescriptor its_own(ends[1]);
  pid_ = ::fork();
  if (pid_ == 0) {
    Execute(its_own.Get(), configuration_file, environment);
  }
}

Worker::~Worker() {
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

std::optional<webapid::Frame> Worker::Ask(const std::vector<std::string>& parts) {
  ++asked_;
  constexpr std::uint32_t kIndex = 5;
  if (!Send(webapid::Encode({kIndex, asked_, webapid::kAdmin, parts}))) {
    return std::nullopt;
  }
  while (true) {
    if (auto frame = reader_.Next()) {
      if (frame->index != kIndex || frame->generation != asked_ || frame->parts.size() != 1) {
        throw webapid::FrameError("the worker answers what it was not asked");
      }
      return frame;
    }
    if (!IsReadable()) {
      throw std::runtime_error("the worker does not answer");
    }
    std::array<char, 65536> piece{};
    const ssize_t got = ::recv(socket_.Get(), piece.data(), piece.size(), 0);
    if (got <= 0) {
      return std::nullopt;
    }
    reader_.Append({piece.data(), static_cast<std::size_t>(got)});
  }
}

bool Worker::Send(const std::string& bytes) const {
  return ::send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(bytes.size());
}

bool Worker::IsReadable() const {
  pollfd waiting{socket_.Get(), POLLIN, 0};
  return ::poll(&waiting, 1, kPatience) > 0;
}

}  // namespace quillon::test
