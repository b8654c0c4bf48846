#include "utils/file_text.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include "utils/file_descriptor.h"

namespace quillon::platform {

FileText ReadFileText(const std::string& path, std::size_t most_bytes, Links links) {
  const auto fail_as_too_large = [&] {
    throw FileError(EFBIG, path, fmt::format("is larger than {} KiB", most_bytes / 1024));
  };
  // Without waiting, so that a FIFO in the file's place cannot hold us up.
  const int no_link = links == Links::kRefuse ? O_NOFOLLOW : 0;
  const FileDescriptor file(
      ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | no_link));
  FileText result{};
  if (!file.IsOpen() && errno == ELOOP && links == Links::kRefuse) {
    throw FileError(ELOOP, path, "is a link");
  }
  if (!file.IsOpen() || ::fstat(file.Get(), &result.status) != 0) {
    throw FileError(errno, path);
  }
  if (S_ISDIR(result.status.st_mode)) {
    throw FileError(EISDIR, path);
  }
  if (!S_ISREG(result.status.st_mode)) {
    throw FileError(EINVAL, path, "is not a regular file");
  }
  const auto expected = static_cast<std::size_t>(result.status.st_size);
  if (expected > most_bytes) {
    fail_as_too_large();
  }

  // One byte more than expected, so that a file of the expected size ends at the second read.
  std::size_t length = 0;
  result.text.resize(expected + 1);
  while (true) {
    const ssize_t got =
        ::read(file.Get(), result.text.data() + length, result.text.size() - length);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      throw FileError(errno, path);
    }
    if (got == 0) {
      break;
    }
    length += static_cast<std::size_t>(got);
    if (length > most_bytes) {
      fail_as_too_large();
    }
    if (length == result.text.size()) {
      result.text.resize(std::min(2 * length, most_bytes + 1));
    }
  }
  result.text.resize(length);
  return result;
}

}  // namespace quillon::platform
