#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace quillon::test {

/// A fresh folder, removed with everything in it at the end of the object's life.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  const std::filesystem::path& path() const { return path_; }
  /// Absolute path of something in the folder.
  std::string operator/(std::string_view relative) const { return path_ / relative; }

  /// Writes a file, making its folders; answers its absolute path.
  std::string Write(std::string_view relative, std::string_view content) const;
  /// The content of a file in the folder.
  std::string Read(std::string_view relative) const;

 private:
  std::filesystem::path path_;
};

}  // namespace quillon::test
