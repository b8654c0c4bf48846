// groups-by-library WORLD: the report of all groups of the world, by the library.
#include <fstream>
#include <string>

#include <json/value.h>
#include <json/writer.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/account/group.h>

#include "timing.h"

int main(int /*argc*/, char** argv) {
  const std::string world = argv[1];
  quillon::platform::UseConfiguration(
      quillon::platform::LoadConfiguration(world + "/mailserver.toml"));

  Json::Value list(Json::arrayValue);
  std::ifstream names(world + "/group-names");
  for (std::string name; std::getline(names, name);) {
    list.append(Json::Value(Json::objectValue))["name"] = name;
  }

  quillon::bench::Time([&] { velamailserver::webapi::Group().UpdateQuotaInfo(list); });
  std::ofstream(world + "/groups-by-library.json") << Json::FastWriter().write(list);
}
