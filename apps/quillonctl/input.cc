#include "input.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <system_error>

namespace {

constexpr std::size_t kMostBytes = 67108864;

struct CloseFile {
  void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};

[[noreturn]] void Fail(int error, const std::string& path) {
  throw std::system_error(error, std::generic_category(), "cannot read " + path);
}

std::string ReadAll(std::FILE* file, const std::string& name) {
  std::string text;
  std::array<char, 65536> part;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by fread
  while (const std::size_t length = std::fread(part.data(), 1, part.size(), file)) {
    text.append(part.data(), length);
    if (text.size() > kMostBytes) {
      Fail(EFBIG, name);
    }
  }
  if (std::ferror(file) != 0) {
    Fail(errno, name);
  }
  return text;
}

}  // namespace

std::string ReadInput(const std::string& path) {
  if (path == "-") {
    return ReadAll(stdin, "standard input");
  }
  const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "re"));
  if (!file) {
    Fail(errno, path);
  }
  return ReadAll(file.get(), path);
}
