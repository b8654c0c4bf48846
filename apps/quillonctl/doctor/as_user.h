#pragma once

#include <sys/types.h>

#include <functional>
#include <vector>

/// Somebody as whom a process runs.
struct Identity {
  uid_t uid;
  gid_t gid;
  std::vector<gid_t> groups;  ///< further ones
};

/// Runs `work` in a child process that is somebody else, for good. Throws `std::runtime_error` with
/// what an exception of `work` says, and `std::system_error` when there can be no such process.
/// Needs root, and a process with a single thread.
void RunAs(const Identity& identity, const std::function<void()>& work);
