#pragma once

#include <string>

/// A file with some content that only this user may read, gone at the end of the object's life.
class TemporaryFile {
 public:
  /// Throws `std::system_error` when it cannot be written.
  explicit TemporaryFile(const std::string& content);
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile();

  const std::string& path() const { return path_; }

 private:
  std::string path_ = "/tmp/quillonctl-XXXXXX";
};
