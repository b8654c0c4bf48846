#pragma once

#include <string>
#include <vector>

/// What a program that was run to its end has said.
struct CommandOutput {
  std::string text;  ///< standard output and standard error
  bool is_success;   ///< whether it ended with status 0
};

/// Runs a program, which is looked up in the folders for programs, with nothing of this process's
/// environment and no input. One that is not there is a failure whose text says so.
CommandOutput RunCommand(const std::vector<std::string>& command);
