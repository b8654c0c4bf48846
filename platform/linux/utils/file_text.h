#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <optional>
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
  struct stat status {};
  std::string text;
};

/// Whether a link in a file's place is followed or refused.
enum class Links { kFollow, kRefuse };

/// Reads a regular file of at most `most_bytes`. Throws `FileError`.
FileText ReadFileText(const std::string& path, std::size_t most_bytes,
                      Links links = Links::kFollow);

/// What others than root may do with a file of root's.
enum class Others { kMayRead, kMayDoNothing };

/// Reads a file that root alone may change, as `ReadFileText` does; nothing when there is none.
/// Throws `FileError`, also for a link and for a file that is not root's or lets others do more.
std::optional<FileText> ReadRootFile(const std::string& path, std::size_t most_bytes,
                                     Others others);

}  // namespace quillon::platform
