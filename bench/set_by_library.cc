// set-by-library WORLD: sets the quota of all users of the world in one call.
#include <fstream>
#include <string>
#include <vector>

#include <quillon/platform/configuration.h>
#include <velamailserver/account/user.h>

#include "timing.h"

int main(int /*argc*/, char** argv) {
  const std::string world = argv[1];
  quillon::platform::UseConfiguration(
      quillon::platform::LoadConfiguration(world + "/mailserver.toml"));

  std::vector<velamailserver::velasdk::VelaUser> users;
  std::ifstream names(world + "/names");
  for (std::string name; std::getline(names, name);) {
    users.emplace_back(name);
  }

  quillon::bench::Time([&] { velamailserver::webapi::User().SetQuota(users, 1048576, 1000000); });
}
