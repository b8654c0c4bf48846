// report-in-a-straight-line WORLD: the same report by a program that knows where everything is: one
// pass over the accounts, two SELECTs, MGET in chunks, the same JSON.
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unordered_map>
#include <vector>

#include <hiredis.h>
#include <json/value.h>
#include <json/writer.h>

#include "plain_store.h"
#include "timing.h"

namespace {

using quillon::bench::BytesById;

std::unordered_map<std::string, unsigned long long> ReadUsage(const std::string& socket,
                                                              const Json::Value& list) {
  constexpr Json::ArrayIndex kChunk = 1000;
  std::unordered_map<std::string, unsigned long long> usage;
  redisContext* redis = redisConnectUnix(socket.c_str());
  for (Json::ArrayIndex start = 0; start < list.size(); start += kChunk) {
    const Json::ArrayIndex end = std::min(start + kChunk, list.size());
    std::vector<std::string> words = {"MGET"};
    for (Json::ArrayIndex i = start; i < end; ++i) {
      words.push_back(list[i]["name"].asString() + "/quota/storage");
    }
    std::vector<const char*> arguments;
    std::vector<std::size_t> lengths;
    for (const std::string& word : words) {
      arguments.push_back(word.data());
      lengths.push_back(word.size());
    }
    auto* reply = static_cast<redisReply*>(
        redisCommandArgv(redis, static_cast<int>(words.size()), arguments.data(), lengths.data()));
    for (Json::ArrayIndex i = start; i < end; ++i) {
      const redisReply* element = reply->element[i - start];
      if (element->type == REDIS_REPLY_STRING) {
        usage.emplace(list[i]["name"].asString(), std::strtoull(element->str, nullptr, 10));
      }
    }
    freeReplyObject(reply);
  }
  redisFree(redis);
  return usage;
}

void Report(const std::string& world, Json::Value& list) {
  const auto uids = quillon::bench::ReadIds(world + "/passwd");

  const auto [limits, warnings] = quillon::bench::SelectBytes(
      world + "/quota.db",
      {"SELECT id, bytes FROM user_limit", "SELECT id, bytes FROM user_warning"});

  const auto usage = ReadUsage(world + "/redis.sock", list);

  for (Json::Value& member : list) {
    const std::string name = member["name"].asString();
    member["quota"] = 0;
    member["remaining_usage_notification"] = 0;
    member["usage"] = 0;
    if (const auto uid = uids.find(name); uid != uids.end()) {
      const auto limit = limits.find(uid->second);
      const auto warning = warnings.find(uid->second);
      if (limit != limits.end()) {
        member["quota"] = Json::UInt64{limit->second};
      }
      if (warning != warnings.end()) {
        member["remaining_usage_notification"] = Json::UInt64{limit->second - warning->second};
      }
    }
    if (const auto used = usage.find(name); used != usage.end()) {
      member["usage"] = Json::UInt64{used->second};
    }
  }
}

}  // namespace

int main(int /*argc*/, char** argv) {
  const std::string world = argv[1];
  Json::Value list(Json::arrayValue);
  std::ifstream names(world + "/names");
  for (std::string name; std::getline(names, name);) {
    list.append(Json::Value(Json::objectValue))["name"] = name;
  }

  quillon::bench::Time([&] { Report(world, list); });
  std::ofstream(world + "/report-in-a-straight-line.json") << Json::FastWriter().write(list);
}
