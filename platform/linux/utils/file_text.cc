#include "utils/file_text.h"

#include <fcntl.h>

#include <cerrno>
#include <system_error>

#include "utils/file_descriptor.h"

namespace quillon::platform {

namespace {

[[noreturn]] void Fail(int error, const std::string& path) {
  throw std::system_error(error, std::generic_category(), path);
}

}  // namespace

FileText ReadFileText(const std::string& path) {
  // Without waiting, so that a FIFO in the file's place cannot hold us up.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  FileText result{};
  if (!file.IsOpen() || ::fstat(file.Get(), &result.status) != 0) {
    Fail(errno, path);
  }
  if (!S_ISREG(result.status.st_mode)) {
    Fail(S_ISDIR(result.status.st_mode) ? EISDIR : EINVAL, path);
  }

  // One byte more than expected, so that a file of the expected size ends at the second read.
  std::size_t length = 0;
  result.text.resize(static_cast<std::size_t>(result.status.st_size) + 1);
  while (true) {
    const ssize_t got =
        ::read(file.Get(), result.text.data() + length, result.text.size() - length);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      Fail(errno, path);
    }
    if (got == 0) {
      break;
    }
    length += static_cast<std::size_t>(got);
    if (length == result.text.size()) {
      result.text.resize(2 * length);
    }
  }
  result.text.resize(length);
  return result;
}

}  // namespace quillon::platform
