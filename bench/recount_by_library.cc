// recount-by-library WORLD: counts the mail of the world that belongs to nobody, into the cache.
#include <quillon/platform/configuration.h>
#include <velamailserver/account/no_owner.h>

#include "timing.h"

int main(int /*argc*/, char** argv) {
  const std::string world = argv[1];
  quillon::platform::UseConfiguration(
      quillon::platform::LoadConfiguration(world + "/mailserver.toml"));

  auto maildirs = velamailserver::webapi::NoOwner().List({});
  quillon::bench::Time([&maildirs] {
    for (auto& maildir : maildirs) {
      maildir.RefreshCache();
    }
  });
}
