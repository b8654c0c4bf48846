#include "utils/file_text.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include "utils/file_descriptor.h"

namespace quillon::platform {

namespace {

// Opens a regular file and finds out what it is.
FileDescriptor OpenFile(const std::string& path, Links links, struct stat& status) {
  // Without waiting, so that a FIFO in the file's place cannot hold us up.
  const int no_link = links == Links::kRefuse ? O_NOFOLLOW : 0;
  FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | no_link));
  if (!file.IsOpen() && errno == ELOOP && links == Links::kRefuse) {
    throw FileError(ELOOP, path, "is a link");
  }
  if (!file.IsOpen() || ::fstat(file.Get(), &status) != 0) {
    throw FileError(errno, path);
  }
  if (S_ISDIR(status.st_mode)) {
    throw FileError(EISDIR, path);
  }
  if (!S_ISREG(status.st_mode)) {
    throw FileError(EINVAL, path, "is not a regular file");
  }
  return file;
}

std::string ReadToEnd(const FileDescriptor& file, const std::string& path,
                      const struct stat& status, std::size_t most_bytes) {
  const auto fail_as_too_large = [&] {
    throw FileError(EFBIG, path, fmt::format("is larger than {} KiB", most_bytes / 1024));
  };
  const auto expected = static_cast<std::size_t>(status.st_size);
  if (expected > most_bytes) {
    fail_as_too_large();
  }

  // One byte more than expected, so that a file of the expected size ends at the second read.
  std::size_t length = 0;
  std::string text(expected + 1, '\0');
  while (true) {
    const ssize_t got = ::read(file.Get(), text.data() + length, text.size() - length);
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
    if (length == text.size()) {
      text.resize(std::min(2 * length, most_bytes + 1));
    }
  }
  text.resize(length);
  return text;
}

void RequireRootAlone(const std::string& path, const struct stat& status, Others others) {
  if (status.st_uid != 0) {
    throw FileError(EPERM, path, "does not belong to root, it is not used");
  }
  if (others == Others::kMayDoNothing && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw FileError(EPERM, path, "others than root may read or write it, it is not used");
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw FileError(EPERM, path, "others than root may write to it, it is not used");
  }
}

}  // namespace

FileText ReadFileText(const std::string& path, std::size_t most_bytes, Links links) {
  struct stat status {};
  const FileDescriptor file = OpenFile(path, links, status);
  return FileText{status, ReadToEnd(file, path, status, most_bytes)};
}

std::optional<FileText> ReadRootFile(const std::string& path, std::size_t most_bytes,
                                     Others others) {
  struct stat status {};
  try {
    const FileDescriptor file = OpenFile(path, Links::kRefuse, status);
    RequireRootAlone(path, status, others);
    return FileText{status, ReadToEnd(file, path, status, most_bytes)};
  } catch (const FileError& error) {
    if (error.code() == std::errc::no_such_file_or_directory) {
      return std::nullopt;
    }
    throw;
  }
}

}  // namespace quillon::platform
