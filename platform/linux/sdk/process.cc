#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <system_error>
#include <utility>

#include <vela/process.h>

#include "conf/find_configuration.h"
#include "utils/decimal.h"
#include "utils/file_descriptor.h"

namespace {

using quillon::platform::FileDescriptor;

// Out of the way of the standard streams, which may all be closed.
FileDescriptor MoveAboveStandardStreams(FileDescriptor fd) {
  return fd.IsOpen() ? FileDescriptor(::fcntl(fd.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1))
                     : std::move(fd);
}

FileDescriptor OpenNull() {
  return MoveAboveStandardStreams(FileDescriptor(::open("/dev/null", O_RDWR | O_CLOEXEC)));
}

// How the caller learns what became of the child: its process id, or an error number as a negative
// one.
class Report {
 public:
  Report() {
    std::array<int, 2> ends = {-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) == 0) {
      FileDescriptor read_end(ends[0]);
      FileDescriptor write_end(ends[1]);
      read_end_ = MoveAboveStandardStreams(std::move(read_end));
      write_end_ = MoveAboveStandardStreams(std::move(write_end));
    }
  }

  bool IsOpen() const { return read_end_.IsOpen() && write_end_.IsOpen(); }

  // Whole, or not at all: a pipe does not split what is this short.
  void Write(int result) const {
    static_cast<void>(::write(write_end_.Get(), &result, sizeof(result)) < 0);
  }

  // When those who could write have all been killed, there is no child.
  int Read() {
    write_end_ = FileDescriptor();
    int result = -ECHILD;
    while (::read(read_end_.Get(), &result, sizeof(result)) < 0 && errno == EINTR) {
    }
    return result;
  }

 private:
  FileDescriptor read_end_;
  FileDescriptor write_end_;
};

bool IsMailLogOnStandardError() {
  try {
    return quillon::platform::FindConfiguration()->log.target == "stderr";
  } catch (const std::exception&) {
    return false;  // the log goes to syslog then, and whoever needs the configuration reports it
  }
}

// All but the standard streams: the mail log may go to one that is a socket.
void CloseSockets() {
  // It has one, too, and would write to whatever gets its number next.
  ::closelog();
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int fd = quillon::platform::ParseDecimal<int>(entry.path().filename().native()).value();
    struct stat status {};
    if (fd > STDERR_FILENO && ::fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode)) {
      ::close(fd);
    }
  }
}

// Makes the process independent of its parent's session, streams and sockets.
void Detach(const FileDescriptor& null, bool keeps_standard_error) {
  ::setsid();
  ::dup2(null.Get(), STDIN_FILENO);
  ::dup2(null.Get(), STDOUT_FILENO);
  if (!keeps_standard_error) {
    ::dup2(null.Get(), STDERR_FILENO);
  }
  CloseSockets();
}

// In the process between the two: it ends here, so that nobody but the system is the child's
// parent.
[[noreturn]] void EndBetween(const Report& report, pid_t child) {
  if (child < 0) {
    report.Write(-errno);
  }
  ::_exit(EXIT_SUCCESS);
}

// In the child, which ends here unless it is what it should be.
int Begin(const Report& report, const FileDescriptor& null, bool keeps_standard_error) noexcept {
  try {
    Detach(null, keeps_standard_error);
  } catch (const std::filesystem::filesystem_error& error) {
    report.Write(-error.code().value());
    ::_exit(EXIT_FAILURE);
  }
  report.Write(::getpid());
  return 0;
}

// In the caller.
int Finish(Report& report, pid_t between) {
  const int result = report.Read();
  // Fails when something else in the caller has reaped it, or nobody needs to.
  while (::waitpid(between, nullptr, 0) < 0 && errno == EINTR) {
  }
  if (result < 0) {
    errno = -result;
    return -1;
  }
  return result;
}

}  // namespace

int VLIBCProcForkChildNoWait() {
  const bool keeps_standard_error = IsMailLogOnStandardError();
  const FileDescriptor null = OpenNull();
  Report report;
  if (!null.IsOpen() || !report.IsOpen()) {
    return -1;
  }
  const pid_t between = ::fork();
  if (between < 0) {
    return -1;
  }
  if (between > 0) {
    return Finish(report, between);
  }
  const pid_t child = ::fork();
  if (child != 0) {
    EndBetween(report, child);
  }
  return Begin(report, null, keeps_standard_error);
}
