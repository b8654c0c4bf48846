#include "temporary_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string_view>
#include <system_error>

#include <quillon/platform/file_descriptor.h>

namespace {

[[noreturn]] void Fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), "cannot write " + path);
}

void WriteAll(int fd, std::string_view rest, const std::string& path) {
  while (!rest.empty()) {
    const ssize_t written = ::write(fd, rest.data(), rest.size());
    if (written < 0 && errno != EINTR) {
      Fail(path);
    }
    rest.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
  }
}

}  // namespace

TemporaryFile::TemporaryFile(const std::string& content) {
  const quillon::platform::FileDescriptor file(::mkostemp(path_.data(), O_CLOEXEC));
  if (!file.IsOpen()) {
    Fail(path_);
  }
  try {
    WriteAll(file.Get(), content, path_);
  } catch (...) {
    ::unlink(path_.c_str());
    throw;
  }
}

TemporaryFile::~TemporaryFile() { ::unlink(path_.c_str()); }
