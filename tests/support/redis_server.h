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
  std::string password_;
  int port_;
  std::unique_ptr<BackgroundProgram> program_;
};

}  // namespace quillon::test
