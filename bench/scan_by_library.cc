// scan-by-library WORLD: finds the mail directories of the world that belong to nobody.
#include <quillon/platform/configuration.h>
#include <velamailserver/account/no_owner.h>

#include "timing.h"

int main(int /*argc*/, char** argv) {
  const std::string world = argv[1];
  quillon::platform::UseConfiguration(
      quillon::platform::LoadConfiguration(world + "/mailserver.toml"));

  quillon::bench::Time([] { const velamailserver::webapi::NoOwner no_owner; });
}
