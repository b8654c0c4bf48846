#include "support/redis_server.h"

#include <hiredis/hiredis.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <thread>

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

}  // namespace

RedisServer::RedisServer(const Options& options)
    : password_(options.password), port_(options.tcp ? FreePort() : 0) {
  Start();
}

void RedisServer::Kill() {
  ::kill(program_->pid(), SIGKILL);
  program_->Stop();
}

void RedisServer::Start() {
  std::vector<std::string> arguments = {
      "redis-server", "--dir",  folder_.path(), "--save",    "",       "--appendonly",       "no",
      "--unixsocket", socket(), "--bind",       "127.0.0.1", "--port", std::to_string(port_)};
  if (!password_.empty()) {
    arguments.insert(arguments.end(), {"--requirepass", password_});
  }
  program_ = std::make_unique<BackgroundProgram>(arguments, folder_ / "redis.log");
  WaitUntilItAnswers();
}

void RedisServer::WaitUntilItAnswers() {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (program_->IsRunning() && std::chrono::steady_clock::now() < deadline) {
    const Context context(redisConnectUnix(socket().c_str()));
    if (context && context->err == 0) {
      Command({"PING"});
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  throw std::runtime_error("redis-server does not start: " + folder_.Read("redis.log"));
}

std::string RedisServer::Command(const std::vector<std::string>& arguments, int database) const {
  const Context context(redisConnectUnix(socket().c_str()));
  if (!context || context->err != 0) {
    throw std::runtime_error("cannot connect to " + socket());
  }
  if (!password_.empty()) {
    Execute(context.get(), {"AUTH", password_});
  }
  Execute(context.get(), {"SELECT", std::to_string(database)});
  return Text(*Execute(context.get(), arguments));
}

}  // namespace quillon::test
