// groups-in-a-straight-line WORLD: the same report by a program that knows where everything is: one
// pass over the groups, two SELECTs, the same JSON.
#include <fstream>
#include <string>

#include <json/value.h>
#include <json/writer.h>

#include "plain_store.h"
#include "timing.h"

namespace {

void Report(const std::string& world, Json::Value& list) {
  const auto gids = quillon::bench::ReadIds(world + "/group");
  const auto [limits, warnings] = quillon::bench::SelectBytes(
      world + "/quota.db",
      {"SELECT id, bytes FROM group_limit", "SELECT id, bytes FROM group_warning"});
  for (Json::Value& member : list) {
    member["quota"] = 0;
    member["remaining_usage_notification"] = 0;
    const auto gid = gids.find(member["name"].asString());
    if (gid == gids.end()) {
      continue;
    }
    const auto limit = limits.find(gid->second);
    const auto warning = warnings.find(gid->second);
    if (limit != limits.end()) {
      member["quota"] = Json::UInt64{limit->second};
    }
    if (warning != warnings.end()) {
      member["remaining_usage_notification"] = Json::UInt64{limit->second - warning->second};
    }
  }
}

}  // namespace

int main(int /*argc*/, char** argv) {
  const std::string world = argv[1];
  Json::Value list(Json::arrayValue);
  std::ifstream names(world + "/group-names");
  for (std::string name; std::getline(names, name);) {
    list.append(Json::Value(Json::objectValue))["name"] = name;
  }

  quillon::bench::Time([&] { Report(world, list); });
  std::ofstream(world + "/groups-in-a-straight-line.json") << Json::FastWriter().write(list);
}
