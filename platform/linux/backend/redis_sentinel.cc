// How the master is found that Redis Sentinel watches over. Sentinels can be wrong for a while:
// when they are cut off, or while a fail-over is going on. So a server is believed to be the master
// only when it says so itself, and the next sentinel is asked otherwise.
#include <algorithm>
#include <string_view>
#include <thread>

#include <fmt/format.h>

#include <velamailserver/log_exception.h>

#include "backend/redis_connection.h"
#include "utils/excerpt.h"

namespace quillon::backend {

namespace {

using platform::HostPort;
using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/backend/redis_sentinel";
constexpr int kNoneNamedLine = 37;
constexpr int kNotUsableLine = 44;

constexpr std::chrono::milliseconds kPause(200);
constexpr std::size_t kLongestHost = 255;

std::string_view Text(const redisReply& reply) { return {reply.str, reply.len}; }

// Nothing for what is no address: not a sentinel's answer.
std::optional<HostPort> AddressIn(const redisReply& reply) {
  if (reply.type != REDIS_REPLY_ARRAY || reply.elements != 2 ||
      reply.element[0]->type != REDIS_REPLY_STRING ||
      reply.element[1]->type != REDIS_REPLY_STRING) {
    return std::nullopt;
  }
  const std::string_view host = Text(*reply.element[0]);
  const auto port = platform::ParsePort(Text(*reply.element[1]));
  const bool is_host =
      !host.empty() && host.size() <= kLongestHost &&
      std::all_of(host.begin(), host.end(), [](char c) { return c > ' ' && c < 127; });
  if (!is_host || !port) {
    return std::nullopt;
  }
  return HostPort{std::string(host), *port};
}

}  // namespace

// What the sentinels said in one round, when no master was found.
struct RedisConnection::Search {
  std::vector<std::string> named;  // addresses of servers
  std::vector<std::string> failures;
};

void RedisConnection::FindMaster() {
  const platform::Configuration::Usage& usage = configuration_->usage;
  const std::chrono::seconds most(usage.connect_timeout);
  const Clock::time_point end = Clock::now() + most;
  context_.reset();  // the session that has ended
  Search search = AskSentinels(end);
  if (!context_ && !search.named.empty() && end - Clock::now() > most / 2) {
    std::this_thread::sleep_for(kPause);
    search = AskSentinels(end);
  }
  trial_end_.reset();
  if (context_) {
    return;
  }
  const std::string failures = fmt::format("{}", fmt::join(search.failures, "; "));
  if (search.named.empty()) {
    throw LogException(velamailserver::ERR_BAD_DB_SESSION,
                       fmt::format("usage store {}: no sentinel names the master: {}",
                                   usage.sentinel_master, failures),
                       3, kSourceFile, kNoneNamedLine);
  }
  throw LogException(velamailserver::ERR_BAD_DB_SESSION,
                     fmt::format("usage store {}: no master where the sentinels say: {}",
                                 usage.sentinel_master, failures),
                     3, kSourceFile, kNotUsableLine);
}

// Until a master is found. Each sentinel has its share of the time that is left, together with the
// server that it names: one that does not answer must not keep the others from being asked.
RedisConnection::Search RedisConnection::AskSentinels(Clock::time_point end) {
  const std::vector<std::string>& sentinels = configuration_->usage.sentinels;
  Search search;
  for (std::size_t i = 0; i < sentinels.size() && !context_; ++i) {
    const Clock::time_point now = Clock::now();
    trial_end_ = now + (end - now) / static_cast<int>(sentinels.size() - i);
    Try(sentinels[i], search);
  }
  return search;
}

void RedisConnection::Try(const std::string& sentinel, Search& search) {
  std::string tried = sentinel;
  try {
    const HostPort master = AskForMaster(sentinel);
    const std::string address = master.Text();
    tried += " names " + address;
    if (std::find(search.named.begin(), search.named.end(), address) != search.named.end()) {
      throw TrialFailure("see above");
    }
    search.named.push_back(address);
    Connect(master);
    LogIn(configuration_->usage.password);
    RequireMaster();
    master_ = address;
  } catch (const TrialFailure& failure) {
    context_.reset();
    search.failures.push_back(tried + ": " + failure.what());
  }
}

HostPort RedisConnection::AskForMaster(const std::string& sentinel) {
  const auto server = platform::ParseHostPort(sentinel);
  if (!server) {
    throw TrialFailure("not HOST:PORT, correct usage.sentinels");
  }
  Connect(*server);
  LogIn(configuration_->usage.sentinel_password);
  RedisCommand command("SENTINEL");
  command.Add({"get-master-addr-by-name"});
  command.Add({configuration_->usage.sentinel_master});
  Send(command);
  const Reply reply = Receive();
  context_.reset();
  if (reply->type == REDIS_REPLY_NIL) {
    throw TrialFailure("knows no such master, correct usage.sentinel_master");
  }
  if (reply->type == REDIS_REPLY_ERROR) {
    throw TrialFailure(fmt::format("[{}], correct usage.sentinels or usage.sentinel_password",
                                   platform::Excerpt(Text(*reply), 100)));
  }
  const auto master = AddressIn(*reply);
  if (!master) {
    throw TrialFailure("does not answer as a sentinel does, correct usage.sentinels");
  }
  return *master;
}

void RedisConnection::RequireMaster() {
  Send(RedisCommand("ROLE"));
  const Reply reply = ReceiveResult();
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements == 0 ||
      reply->element[0]->type != REDIS_REPLY_STRING) {
    throw TrialFailure("does not answer as a Redis server does");
  }
  const std::string_view role = Text(*reply->element[0]);
  if (role != "master") {
    throw TrialFailure(
        fmt::format("is a {} and no master, a fail-over may be going on", platform::Excerpt(role)));
  }
}

}  // namespace quillon::backend
