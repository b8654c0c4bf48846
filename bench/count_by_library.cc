// count-by-library WORLD: counts the mail of all users of the world into its usage store.
#include <quillon/platform/configuration.h>
#include <quillon/platform/usage_count.h>
#include <velamailserver/conf/smtp_ext.h>

#include "timing.h"

int main(int /*argc*/, char** argv) {
  const std::string world = argv[1];
  quillon::platform::UseConfiguration(
      quillon::platform::LoadConfiguration(world + "/mailserver.toml"));

  quillon::bench::Time(
      [] { quillon::platform::CountUsage(velamailserver::conf::SmtpExt().EnumUsers()); });
}
