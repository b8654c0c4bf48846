// details-by-library WORLD: the details of all users of the world, by the library.
#include <vector>

#include <quillon/platform/configuration.h>
#include <velamailserver/account/user.h>

#include "details.h"
#include "timing.h"

int main(int /*argc*/, char** argv) {
  using velamailserver::webapi::MoreInfo;
  const std::string world = argv[1];
  quillon::platform::UseConfiguration(
      quillon::platform::LoadConfiguration(world + "/mailserver.toml"));

  std::vector<MoreInfo> infos;
  quillon::bench::Time([&] { infos = velamailserver::webapi::User().MoreInfos({}); });
  quillon::bench::WriteDetails(infos, world + "/details-by-library");
}
