#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/program.h"
#include "support/temporary_folder.h"

namespace quillon::test {

/// A Redis server of the test's own, without persistence, in a throw-away folder: on a unix socket
/// and, if asked for, on a port of 127.0.0.1. It answers when the constructor returns. Whatever it
/// cannot do throws, a missing redis-server included.
class RedisServer {
 public:
  struct Options {
    std::string password;  ///< empty: none is needed
    bool tcp = false;
    int replica_of = 0;  ///< the port of another server, with the same password; 0: a master
  };

  RedisServer() : RedisServer(Options()) {}
  explicit RedisServer(const Options& options);

  std::string socket() const { return folder_ / "redis.sock"; }
  /// 0 without TCP.
  int port() const { return port_; }

  /// Ends the server, with all that it holds.
  void Stop() { program_->Stop(); }
  /// The same without a chance for it to say goodbye.
  void Kill();
  /// Begins it anew, empty, at the same place.
  void Start();
  /// It accepts connections and never answers, until it thaws.
  void Freeze() const { program_->Freeze(); }
  void Thaw() const { program_->Thaw(); }

  /// Runs one command, whose arguments may hold any bytes, over a connection of its own. Answers
  /// the reply as text: nil as "(nil)", the elements of an array one to a line; an error reply
  /// throws.
  std::string Command(const std::vector<std::string>& arguments, int database = 0) const;

 private:
  void WaitUntilItAnswers();

  TemporaryFolder folder_;
  Options options_;
  int port_;
  std::unique_ptr<BackgroundProgram> program_;
};

/// A Redis Sentinel of the test's own, on a port of 127.0.0.1 (and of ::1, if there is one). It
/// calls the server that it watches over "mail", and takes it for dead after 200 ms. It knows all
/// replicas when the constructor returns.
class RedisSentinel {
 public:
  struct Options {
    std::string password;         ///< the sentinel's own; empty: none is needed
    std::string master_password;  ///< empty: none is needed
    int replicas = 0;             ///< how many the master has
  };

  explicit RedisSentinel(int master_port) : RedisSentinel(master_port, Options()) {}
  RedisSentinel(int master_port, const Options& options);

  int port() const { return port_; }
  /// HOST:PORT.
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

  void Stop() { program_->Stop(); }
  void Freeze() const { program_->Freeze(); }
  void Thaw() const { program_->Thaw(); }

 private:
  void WaitUntilItKnows(int replicas);

  TemporaryFolder folder_;
  std::string password_;
  int port_;
  std::unique_ptr<BackgroundProgram> program_;
};

/// The sharding proxy nutcracker in front of servers on ports of 127.0.0.1, on a unix socket.
class RedisProxy {
 public:
  explicit RedisProxy(const std::vector<int>& ports);

  std::string socket() const { return folder_ / "proxy.sock"; }

 private:
  TemporaryFolder folder_;
  std::unique_ptr<BackgroundProgram> program_;
};

}  // namespace quillon::test
