#pragma once

#include <sys/types.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

namespace quillon::test {

/// The children of a process that run this program, which is named by its file.
inline std::vector<pid_t> ChildrenOf(pid_t parent, const std::string& program) {
  const std::string number = std::to_string(parent);
  std::ifstream list("/proc/" + number + "/task/" + number + "/children");
  std::vector<pid_t> found;
  for (pid_t pid = 0; list >> pid;) {
    std::error_code has_ended;
    const auto file =
        std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", has_ended);
    if (file.filename() == program) {
      found.push_back(pid);
    }
  }
  return found;
}

}  // namespace quillon::test
