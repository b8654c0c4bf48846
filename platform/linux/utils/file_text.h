#pragma once

#include <sys/stat.h>

#include <string>

namespace quillon::platform {

/// A whole file and what it was when it was opened.
struct FileText {
  struct stat status;
  std::string text;
};

/// Reads a regular file. Throws `std::system_error` that names the path.
FileText ReadFileText(const std::string& path);

}  // namespace quillon::platform
