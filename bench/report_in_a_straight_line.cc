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
#include <sqlite3.h>

#include "timing.h"

namespace {

using Bytes = std::unordered_map<unsigned int, unsigned long long>;

std::unordered_map<std::string, unsigned int> ReadAccounts(const std::string& path) {
  std::unordered_map<std::string, unsigned int> uids;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const auto name_end = line.find(':');
    const auto uid_start = line.find(':', name_end + 1) + 1;
    uids.emplace(line.substr(0, name_end),
                 static_cast<unsigned int>(std::strtoul(line.c_str() + uid_start, nullptr, 10)));
  }
  return uids;
}

Bytes Select(sqlite3* database, const char* sql) {
  Bytes bytes;
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(database, sql, -1, &statement, nullptr);
  while (sqlite3_step(statement) == SQLITE_ROW) {
    bytes.emplace(static_cast<unsigned int>(sqlite3_column_int64(statement, 0)),
                  std::strtoull(reinterpret_cast<const char*>(sqlite3_column_text(statement, 1)),
                                nullptr, 10));
  }
  sqlite3_finalize(statement);
  return bytes;
}

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
  const auto uids = ReadAccounts(world + "/passwd");

  sqlite3* database = nullptr;
  sqlite3_open((world + "/quota.db").c_str(), &database);
  const Bytes limits = Select(database, "SELECT id, bytes FROM user_limit");
  const Bytes warnings = Select(database, "SELECT id, bytes FROM user_warning");
  sqlite3_close(database);

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
