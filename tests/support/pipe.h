#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>

namespace quillon::test {

/// What a process that was forked tells another. It is passed on to programs, too.
class Pipe {
 public:
  Pipe() {
    if (::pipe(ends_.data()) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe");
    }
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() {
    CloseReadEnd();
    CloseWriteEnd();
  }

  int read_end() const { return ends_[0]; }
  int write_end() const { return ends_[1]; }
  void CloseReadEnd() { Close(ends_[0]); }
  void CloseWriteEnd() { Close(ends_[1]); }

  void Write(std::string_view text) const {
    if (::write(ends_[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      throw std::system_error(errno, std::generic_category(), "write to a pipe");
    }
  }

  /// What is written until nobody else can write any more.
  std::string ReadAll() {
    CloseWriteEnd();
    std::string text;
    std::array<char, 4096> chunk{};
    ssize_t got = 0;
    while ((got = ::read(ends_[0], chunk.data(), chunk.size())) != 0) {
      if (got > 0) {
        text.append(chunk.data(), static_cast<std::size_t>(got));
      } else if (errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), "read from a pipe");
      }
    }
    return text;
  }

 private:
  static void Close(int& fd) {
    if (fd >= 0) {
      ::close(fd);
      fd = -1;
    }
  }

  std::array<int, 2> ends_{-1, -1};
};

}  // namespace quillon::test
