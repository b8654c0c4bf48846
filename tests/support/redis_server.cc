#include "support/redis_server.h"

#include <hiredis/hiredis.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>

#include "support/loopback.h"

namespace quillon::test {

namespace {

struct FreeContext {
  void operator()(redisContext* context) const { redisFree(context); }
};
struct FreeReply {
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using Context = std::unique_ptr<redisContext, FreeContext>;
using Reply = std::unique_ptr<redisReply, FreeReply>;

Reply Execute(redisContext* context, const std::vector<std::string>& arguments) {
  std::vector<const char*> texts;
  std::vector<std::size_t> lengths;
  for (const std::string& argument : arguments) {
    texts.push_back(argument.data());
    lengths.push_back(argument.size());
  }
  Reply reply(static_cast<redisReply*>(
      redisCommandArgv(context, static_cast<int>(texts.size()), texts.data(), lengths.data())));
  if (!reply) {
    throw std::runtime_error("redis: " + std::string(context->errstr));
  }
  if (reply->type == REDIS_REPLY_ERROR) {
    throw std::runtime_error("redis: " + std::string(reply->str, reply->len));
  }
  return reply;
}

std::string Text(const redisReply& reply) {
  std::string text;
  switch (reply.type) {
    case REDIS_REPLY_NIL:
      return "(nil)";
    case REDIS_REPLY_INTEGER:
      return std::to_string(reply.integer);
    case REDIS_REPLY_ARRAY:
      for (std::size_t i = 0; i < reply.elements; ++i) {
        text += Text(*reply.element[i]) + "\n";
      }
      return text;
    default:
      return std::string(reply.str, reply.len);
  }
}

void WaitUntil(BackgroundProgram& program, const std::string& log,
               const std::function<bool()>& is_ready) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (program.IsRunning() && std::chrono::steady_clock::now() < deadline) {
    if (is_ready()) {
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  std::ifstream file(log);
  throw std::runtime_error(log + ": " + std::string(std::istreambuf_iterator<char>(file), {}));
}

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace

RedisServer::RedisServer(const Options& options)
    : options_(options), port_(options.tcp ? FreePort() : 0) {
  Start();
}

void RedisServer::Kill() {
  ::kill(program_->pid(), SIGKILL);
  program_->Stop();
}

void RedisServer::Start() {
  std::vector<std::string> arguments = {"redis-server",
                                        "--dir",
                                        folder_.path(),
                                        "--save",
                                        "",
                                        "--appendonly",
                                        "no",
                                        "--unixsocket",
                                        socket(),
                                        "--bind",
                                        "127.0.0.1",
                                        "--port",
                                        std::to_string(port_),
                                        "--repl-diskless-sync-delay",
                                        "0"};
  if (!options_.password.empty()) {
    arguments.insert(arguments.end(), {"--requirepass", options_.password,  //
                                       "--masterauth", options_.password});
  }
  if (options_.replica_of != 0) {
    arguments.insert(arguments.end(),
                     {"--replicaof", "127.0.0.1", std::to_string(options_.replica_of)});
  }
  program_ = std::make_unique<BackgroundProgram>(arguments, folder_ / "redis.log");
  WaitUntilItAnswers();
}

void RedisServer::WaitUntilItAnswers() {
  WaitUntil(*program_, folder_ / "redis.log", [this] {
    const Context context(redisConnectUnix(socket().c_str()));
    if (!context || context->err != 0) {
      return false;
    }
    Command({"PING"});
    return true;
  });
}

std::string RedisServer::Command(const std::vector<std::string>& arguments, int database) const {
  const Context context(redisConnectUnix(socket().c_str()));
  if (!context || context->err != 0) {
    throw std::runtime_error("cannot connect to " + socket());
  }
  if (!options_.password.empty()) {
    Execute(context.get(), {"AUTH", options_.password});
  }
  Execute(context.get(), {"SELECT", std::to_string(database)});
  return Text(*Execute(context.get(), arguments));
}

RedisSentinel::RedisSentinel(int master_port, const Options& options)
    : password_(options.password), port_(FreePort()) {
  std::string settings = fmt::format(
      "port {}\nbind 127.0.0.1 -::1\ndir {}\n"
      "sentinel monitor mail 127.0.0.1 {} 1\n"
      "sentinel down-after-milliseconds mail 200\n"
      "sentinel failover-timeout mail 3000\n",
      port_, folder_.path().string(), master_port);
  if (!options.master_password.empty()) {
    settings += "sentinel auth-pass mail " + options.master_password + "\n";
  }
  if (!password_.empty()) {
    settings += "requirepass " + password_ + "\n";
  }
  const std::string file = folder_.Write("sentinel.conf", settings);
  program_ = std::make_unique<BackgroundProgram>(
      std::vector<std::string>{"redis-server", file, "--sentinel"}, folder_ / "sentinel.log");
  WaitUntilItKnows(options.replicas);
}

void RedisSentinel::WaitUntilItKnows(int replicas) {
  WaitUntil(*program_, folder_ / "sentinel.log", [this, replicas] {
    const Context context(redisConnect("127.0.0.1", port_));
    if (!context || context->err != 0) {
      return false;
    }
    if (!password_.empty()) {
      Execute(context.get(), {"AUTH", password_});
    }
    const std::string master = Text(*Execute(context.get(), {"SENTINEL", "MASTER", "mail"}));
    const std::string known = Text(*Execute(context.get(), {"SENTINEL", "REPLICAS", "mail"}));
    return Count(master, "\nrole-reported\nmaster\n") == 1 &&
           Count(known, "\nmaster-link-status\nok\n") == static_cast<std::size_t>(replicas);
  });
}

RedisProxy::RedisProxy(const std::vector<int>& ports) {
  std::string settings = fmt::format(
      "usage:\n"
      "  listen: {}\n"
      "  redis: true\n"
      "  distribution: ketama\n"
      "  auto_eject_hosts: false\n"
      "  timeout: 500\n"
      "  servers:\n",
      socket());
  for (std::size_t i = 0; i < ports.size(); ++i) {  // the names decide where a key goes
    settings += fmt::format("   - 127.0.0.1:{}:1 shard{}\n", ports[i], i);
  }
  const std::string file = folder_.Write("nutcracker.yml", settings);
  const std::string log = folder_ / "nutcracker.log";
  program_ = std::make_unique<BackgroundProgram>(
      std::vector<std::string>{"/usr/sbin/nutcracker", "-c", file, "-o", log, "-p",
                               folder_ / "nutcracker.pid", "-a", "127.0.0.1", "-s",
                               std::to_string(FreePort())},
      log);
  WaitUntil(*program_, log, [this] {
    const Context context(redisConnectUnix(socket().c_str()));
    return context && context->err == 0;
  });
}

}  // namespace quillon::test
