#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "support/temporary_folder.h"

namespace quillon::test {

/// Stands between its clients, one after the other, and a Redis server, so that a test can act
/// between two requests of a client's.
class RedisRelay {
 public:
  /// Gets what a client has sent, in pieces as they come, before the server does, and may change
  /// it. Runs in a thread of the relay's; nobody else sends meanwhile.
  using Act = std::function<void(std::string& piece)>;

  /// `server` is a unix socket.
  RedisRelay(std::string server, Act act);
  RedisRelay(const RedisRelay&) = delete;
  RedisRelay& operator=(const RedisRelay&) = delete;
  ~RedisRelay();

  std::string socket() const { return folder_ / "relay.sock"; }

 private:
  void Serve(int client) const;

  TemporaryFolder folder_;
  std::string server_;
  Act act_;
  int listener_;
  std::atomic<int> client_ = -1;
  std::thread thread_;
};

/// For `RedisRelay`: whether a piece has a command in it.
bool HasCommand(const std::string& piece, const std::string& name);

}  // namespace quillon::test
