#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>

#include <gtest/gtest.h>

namespace quillon::test {

// Neither 0 nor 1: a body that ends its process early does not say so by chance.
inline constexpr int kDoneInOwnProcess = 123;
inline constexpr int kSkippedInOwnProcess = 124;
inline constexpr int kFailedInOwnProcess = 125;

/// Runs `body`, expectations and all, in a process of its own, because what it does to its process
/// cannot be undone, and expects that it came to its end. No exit handlers run there.
template <typename Body>
void InOwnProcess(const Body& body) {
  static_cast<void>(std::fflush(nullptr));
  const pid_t pid = ::fork();
  if (pid == 0) {
    try {
      body();
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
    }
    static_cast<void>(std::fflush(stdout));
    ::_exit(testing::Test::HasFailure() ? kFailedInOwnProcess : kDoneInOwnProcess);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
  if (WEXITSTATUS(status) == kSkippedInOwnProcess) {
    GTEST_SKIP() << "see above";
  }
  EXPECT_EQ(WEXITSTATUS(status), kDoneInOwnProcess) << "see above";
}

/// For `body`: the machine does not have what this needs, as errno says.
[[noreturn]] inline void SkipInOwnProcess(const char* what) {
  std::cout << "no " << what << " here: " << std::strerror(errno) << '\n' << std::flush;
  ::_exit(kSkippedInOwnProcess);
}

}  // namespace quillon::test
