#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <system_error>

namespace quillon::platform {

/// A file that cannot be used: `what()` is "PATH: PROBLEM".
class FileError : public std::system_error {
 public:
  FileError(int error, const std::string& path)
      : FileError(error, path, std::generic_category().message(error)) {}
  FileError(int error, const std::string& path, const std::string& problem)
      : std::system_error(error, std::generic_category()), what_(path + ": " + problem) {}

  const char* what() const noexcept override { return what_.c_str(); }

 private:
  std::string what_;
};

/// A whole file and what it was when it was opened.
struct FileText {
  struct stat status;
  std::string text;
};

/// Whether a link in a file's place is followed or refused.
enum class Links { kFollow, kRefuse };

/// Reads a regular file of at most `most_bytes`. Throws `FileError`.
FileText ReadFileText(const std::string& path, std::size_t most_bytes,
                      Links links = Links::kFollow);

}  // namespace quillon::platform
