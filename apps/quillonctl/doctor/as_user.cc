#include "doctor/as_user.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <system_error>

#include <quillon/platform/file_descriptor.h>

namespace {

using quillon::platform::FileDescriptor;

void Require(bool is_done, const char* what) {
  if (!is_done) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

void Become(const Identity& identity) {
  Require(::setgroups(identity.groups.size(), identity.groups.data()) == 0, "setgroups");
  Require(::setresgid(identity.gid, identity.gid, identity.gid) == 0, "setresgid");
  Require(::setresuid(identity.uid, identity.uid, identity.uid) == 0, "setresuid");
}

// What it says when it fails; empty when it does not.
std::string Failure(const Identity& identity, const std::function<void()>& work) {
  try {
    Become(identity);
    work();
    return "";
  } catch (const std::exception& error) {
    return error.what();
  }
}

std::string ReadAll(int fd) {
  std::string text;
  std::array<char, 4096> part{};
  ssize_t length = 0;
  while ((length = ::read(fd, part.data(), part.size())) > 0) {
    text.append(part.data(), static_cast<std::size_t>(length));
  }
  return text;
}

}  // namespace

void RunAs(const Identity& identity, const std::function<void()>& work) {
  std::array<int, 2> ends{};
  Require(::pipe2(ends.data(), O_CLOEXEC) == 0, "pipe");
  const FileDescriptor reader(ends[0]);
  FileDescriptor writer(ends[1]);
  const pid_t child = ::fork();
  Require(child >= 0, "fork");
  if (child == 0) {
    const std::string failure = Failure(identity, work);
    const bool is_told = ::write(writer.Get(), failure.data(), failure.size()) >= 0;
    ::_exit(failure.empty() && is_told ? EXIT_SUCCESS : EXIT_FAILURE);
  }
  writer = FileDescriptor();
  const std::string failure = ReadAll(reader.Get());
  int status = 0;
  Require(::waitpid(child, &status, 0) == child, "waitpid");
  if (status != 0) {
    throw std::runtime_error(failure.empty() ? "the process that tried it has crashed" : failure);
  }
}
