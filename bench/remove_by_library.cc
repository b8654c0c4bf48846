// remove-by-library WORLD: removes the mail of the world that belongs to nobody.
#include <quillon/platform/configuration.h>
#include <velamailserver/account/no_owner.h>

#include "timing.h"

int main(int /*argc*/, char** argv) {
  const std::string world = argv[1];
  quillon::platform::UseConfiguration(
      quillon::platform::LoadConfiguration(world + "/mailserver.toml"));

  velamailserver::webapi::NoOwner no_owner;
  std::vector<unsigned int> uids;
  for (const auto& maildir : no_owner.List({})) {
    uids.push_back(maildir.uid);
  }
  quillon::bench::Time([&] { no_owner.RemoveStorage(uids); });
}
