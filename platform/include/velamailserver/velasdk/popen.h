#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace velamailserver::velasdk {

/// A command whose standard output is read line by line. No shell is between, and the command gets
/// nothing of this process but its identity and its standard error: standard input is empty, no
/// other descriptor is inherited, and the environment is a fixed one. For use by one thread.
class Popen {
 public:
  /// Starts `command`, the absolute path of a program, with `arguments`, in which the command
  /// itself is not repeated. When it cannot be started, the object has no stream, and the reason is
  /// in the mail log.
  Popen(const std::string& command, const std::vector<std::string>& arguments);
  Popen(const Popen&) = delete;
  Popen& operator=(const Popen&) = delete;
  /// Closes the stream, which ends a command that still writes, and waits for the command's end.
  ~Popen();

  /// Whether the command was started and can be read from.
  bool IsOpen() const { return fd_ >= 0; }

  /// Reads the next line, of any length and with its newline; the last one may have none. Answers
  /// false, and leaves `line` empty, at the end of the output.
  bool GetLine(std::string& line);

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  std::string buffer_;  // what was read and not yet handed out, from position_ on
  std::size_t position_ = 0;
};

}  // namespace velamailserver::velasdk
