#pragma once

#include <memory>

namespace quillon::backend {

/// A client of the Redis server that keeps the usage figures. The constructor does not connect; the
/// first operation does. One object is used by one thread at a time.
class RedisClient {
 public:
  RedisClient(const RedisClient&) = delete;
  RedisClient& operator=(const RedisClient&) = delete;

 protected:
  class Connection;

  RedisClient();
  ~RedisClient();

  std::unique_ptr<Connection> connection_;  ///< the implementation's own
};

}  // namespace quillon::backend
