#pragma once

#include <string>
#include <vector>

/// What a program that was run to its end has said.
struct CommandOutput {
  std::string text;  ///< standard output
  int status;        ///< 127 when there is no such program, as a shell has it

  bool IsSuccess() const { return status == 0; }
};

/// Runs a program, which is looked up in the folders for programs, with nothing of this process's
/// environment and no input. Its error messages are lost.
CommandOutput RunCommand(const std::vector<std::string>& command);

/// What a program that fails says is wrong, on one line.
std::string ComplaintOf(const std::vector<std::string>& command);
