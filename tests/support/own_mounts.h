#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/own_process.h"

namespace quillon::test {

/// Runs `body` in a process with mounts of its own, which are gone at its end. Skips the test where
/// that is not permitted.
template <typename Body>
void InOwnMounts(const Body& body) {
  InOwnProcess([&body] {
    if (::unshare(CLONE_NEWNS) != 0) {
      SkipInOwnProcess("mount namespaces");
    }
    ASSERT_EQ(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    body();
  });
}

/// Has a file or folder of the host seem to be another one.
inline void BindOver(const std::string& host, const std::string& other) {
  ASSERT_EQ(::mount(other.c_str(), host.c_str(), nullptr, MS_BIND, nullptr), 0)
      << host << ": " << std::strerror(errno);
}

}  // namespace quillon::test
