#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace quillon::test {

/// What a program did.
struct Outcome {
  int exit_code;       ///< 128 + N when signal N ended it
  std::string output;  ///< standard output
  std::string error;   ///< standard error
};

/// Runs a program to its end: `arguments` begins with the program itself (looked up in PATH),
/// `input` is its standard input, `environment` holds further "NAME=VALUE" settings. Throws when it
/// cannot be started.
Outcome Run(const std::vector<std::string>& arguments, const std::string& input = "",
            const std::vector<std::string>& environment = {});

/// A program in the background, which ends with the object at the latest, and with this process.
class BackgroundProgram {
 public:
  /// Both streams of its output go to the file `log`.
  BackgroundProgram(const std::vector<std::string>& arguments, const std::string& log);
  BackgroundProgram(const BackgroundProgram&) = delete;
  BackgroundProgram& operator=(const BackgroundProgram&) = delete;
  ~BackgroundProgram();

  pid_t pid() const { return pid_; }
  bool IsRunning();
  /// Sends SIGSTOP, so that it accepts connections and never answers, and SIGCONT.
  void Freeze() const;
  void Thaw() const;
  /// Ends it: with SIGTERM and, if it does not listen, SIGKILL.
  void Stop();

 private:
  void Signal(int number) const;

  pid_t pid_;
};

}  // namespace quillon::test
