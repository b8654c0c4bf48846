#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>
#include <vector>

namespace quillon::test {

/// A group of the name service "quillonwalk", which is as "quillontest" is, and has its answers,
/// but cannot say which groups a user is in: all of its groups have to be walked through.
struct WalkedGroup {
  gid_t gid;
  std::vector<std::string> members;
};

extern std::vector<WalkedGroup> walked_groups;

/// How often a walk was begun, and how many did not come to their end.
extern std::atomic<int> walks_begun;
extern std::atomic<int> walks_open;

}  // namespace quillon::test
