#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "support/redis_server.h"
#include "system/web_server.h"

namespace quillon::soak {

/// A host with its stores and its web server. Every user has a limit and a usage that follow from
/// the place of the name in `names()`.
class World {
 public:
  static constexpr std::size_t kUsers = 2000;
  static constexpr std::size_t kOwnerless = 200;  // mail directories

  World();

  test::WebServer& server() { return server_; }
  const test::WebServer& server() const { return server_; }
  const std::vector<std::string>& names() const { return names_; }
  static unsigned long long UsageOf(std::size_t user) { return user * 7919 + 13; }
  static unsigned long long LimitOf(std::size_t user) { return (user % 200 + 1) << 26; }

 private:
  test::RedisServer redis_;
  test::WebServer server_;
  std::vector<std::string> names_;
};

}  // namespace quillon::soak
