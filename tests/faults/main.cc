// The campaign: faults_campaign [--long] [--seed=N] [GoogleTest's own options].
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include <gtest/gtest.h>

#include "faults/campaign.h"

namespace quillon::test {

Campaign& TheCampaign() {
  static Campaign campaign;
  return campaign;
}

namespace {

// Where that is permitted, the campaign has a lock of usage counts and temporary files of its own.
void HideTheHost() {
  if (::unshare(CLONE_NEWNS) != 0 ||
      ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount("tmpfs", "/run/lock", "tmpfs", 0, nullptr) != 0 ||
      ::mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0) {
    std::cout << "no mounts of the campaign's own: " << std::strerror(errno) << '\n';
  }
}

void ReadArguments(int argc, char** argv) {
  Campaign& campaign = TheCampaign();
  campaign.seed = std::random_device()();
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--long") {
      campaign.is_long = true;
    } else if (argument.rfind("--seed=", 0) == 0) {
      campaign.seed = std::stoull(argument.substr(std::strlen("--seed=")));
    } else {
      std::cerr << "usage: " << argv[0] << " [--long] [--seed=N] [--gtest_...]\n";
      std::exit(EXIT_FAILURE);
    }
  }
}

}  // namespace
}  // namespace quillon::test

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  quillon::test::ReadArguments(argc, argv);
  std::cout << "seed " << quillon::test::TheCampaign().seed << '\n';
  quillon::test::HideTheHost();
  // What a program leaves behind in the background becomes a child of this process.
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  return RUN_ALL_TESTS();
}
