#pragma once

#include <hiredis/hiredis.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <quillon/backend/redis_client.h>
#include <quillon/platform/configuration.h>

#include "utils/host_port.h"

namespace quillon::backend {

/// One command and its arguments, which may hold any bytes.
class RedisCommand {
 public:
  explicit RedisCommand(std::string_view name) { Add({name}); }

  /// Appends one argument, given as the pieces that it is made of.
  void Add(std::initializer_list<std::string_view> pieces);

  /// The command as it goes over the wire.
  std::string Encode() const;

 private:
  std::string bytes_;  // of all arguments, one behind the other
  std::vector<std::size_t> lengths_;
};

/// The session with the usage store's Redis server. Every failure is a `LogException` with
/// `ERR_BAD_DB_SESSION` that names the server, and ends the session.
class RedisConnection {
 public:
  /// Begins a session with the server of the current configuration, unless there is one that still
  /// lives, and answers the settings that it follows. With sentinels, each session begins with
  /// asking them for the master.
  const platform::Configuration::Usage& Open();

  using MakeCommand = std::function<RedisCommand(std::size_t)>;
  using TakeReply = std::function<void(std::size_t, const redisReply&)>;

  /// Sends the commands `make(0)` to `make(count - 1)`, the next ones before the first is answered,
  /// and hands each answer to `take` with its number, in their order. Each answer has the command
  /// time-out to arrive in. The server's error replies are failures; `take` never sees one.
  void Exchange(std::size_t count, const MakeCommand& make, const TakeReply& take);

  /// Reports an answer that is not of the form that its command has.
  [[noreturn]] void FailUnexpectedReply();

  /// How the server is called in messages: its socket, or host and port; with sentinels, what they
  /// call the master, where it was found, and where they are.
  std::string ServerName() const;

 private:
  using Clock = std::chrono::steady_clock;

  struct FreeContext {
    void operator()(redisContext* context) const { redisFree(context); }
  };
  struct FreeReply {
    void operator()(redisReply* reply) const { freeReplyObject(reply); }
  };
  using Reply = std::unique_ptr<redisReply, FreeReply>;

  // A failure of one of the servers that are tried to find the master. It is a part of what is
  // reported when none is left to try.
  struct TrialFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
  };
  struct Search;

  bool IsAlive() const;
  void Begin();
  void Connect();
  void Connect(const platform::HostPort& server);
  void UseContext(redisContext* context);
  void LogIn(const std::string& password);
  void SelectDatabase();

  void FindMaster();
  Search AskSentinels(Clock::time_point end);
  void Try(const std::string& sentinel, Search& search);
  platform::HostPort AskForMaster(const std::string& sentinel);
  void RequireMaster();

  void Send(const RedisCommand& command);
  void Send(std::string_view rest);
  // What is said besides when the server closes the connection instead of answering.
  Reply ReceiveResult(const char* when_closed = "");
  Reply Receive(const char* when_closed = "");
  Clock::time_point Deadline() const;
  timeval ConnectTimeout() const;
  void Await(short events, Clock::time_point deadline);
  [[noreturn]] void FailTimeout();
  [[noreturn]] void Fail(int line, const std::string& reason);

  std::shared_ptr<const platform::Configuration> configuration_;
  std::unique_ptr<redisContext, FreeContext> context_;
  std::string master_;  // where it was found
  // Set while the master is looked for: when the server that is being tried has to be done.
  // Failures are `TrialFailure` until then.
  std::optional<Clock::time_point> trial_end_;
};

class RedisClient::Connection : public RedisConnection {};

}  // namespace quillon::backend
