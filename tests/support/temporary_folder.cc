#include "support/temporary_folder.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

namespace quillon::test {

namespace {

std::filesystem::path MakeFolder() {
  std::string path = std::filesystem::temp_directory_path() / "quillon-test.XXXXXX";
  if (::mkdtemp(path.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return path;
}

}  // namespace

TemporaryFolder::TemporaryFolder() : path_(MakeFolder()) {}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryFolder::Write(std::string_view relative, std::string_view content) const {
  const std::filesystem::path path = path_ / relative;
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  file << content;
  file.close();
  if (!file) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return path;
}

std::string TemporaryFolder::Read(std::string_view relative) const {
  std::ifstream file(path_ / relative, std::ios::binary);
  if (!file) {
    throw std::system_error(errno, std::generic_category(), path_ / relative);
  }
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

}  // namespace quillon::test
