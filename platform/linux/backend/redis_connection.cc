#include "backend/redis_connection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <queue>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include <velamailserver/log_exception.h>

namespace quillon::backend {

namespace {

using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/backend/redis_connection";
constexpr int kPathTooLongLine = 41;
constexpr int kConnectFailedLine = 47;
constexpr int kLogInFailedLine = 58;
constexpr int kErrorReplyLine = 73;
constexpr int kUnexpectedReplyLine = 80;
constexpr int kSendFailedLine = 96;
constexpr int kMalformedReplyLine = 104;
constexpr int kReceiveFailedLine = 108;
constexpr int kReplyTooLongLine = 112;
constexpr int kTimeoutLine = 127;

// Few long commands, or many short ones: the server is never waited for with each of them.
constexpr std::size_t kBytesInFlight = 128U << 10U;

// What a server may have us keep in memory for one answer.
constexpr std::size_t kLongestReply = 64U << 20U;  // bytes
constexpr int kMostElements = 1 << 20;
constexpr char kTooLong[] = "the server's answer is too long";

constexpr std::size_t kLongestErrorText = 200;

// hiredis allocates an array when its length is announced, before any of it has arrived.
redisReplyObjectFunctions BoundArrays(const redisReplyObjectFunctions& standard) {
  static const auto create_array = standard.createArray;
  redisReplyObjectFunctions bounded = standard;
  bounded.createArray = [](const redisReadTask* task, int elements) -> void* {
    return elements <= kMostElements ? create_array(task, elements) : nullptr;
  };
  return bounded;
}

}  // namespace

void RedisCommand::Add(std::initializer_list<std::string_view> pieces) {
  const std::size_t before = bytes_.size();
  for (const std::string_view piece : pieces) {
    bytes_ += piece;
  }
  lengths_.push_back(bytes_.size() - before);
}

std::string RedisCommand::Encode() const {
  std::vector<const char*> arguments;
  arguments.reserve(lengths_.size());
  const char* argument = bytes_.data();
  for (const std::size_t length : lengths_) {
    arguments.push_back(argument);
    argument += length;
  }
  char* encoded = nullptr;
  const int length = redisFormatCommandArgv(&encoded, static_cast<int>(arguments.size()),
                                            arguments.data(), lengths_.data());
  if (length < 0) {
    throw std::bad_alloc();
  }
  const std::unique_ptr<char, void (*)(char*)> owner(encoded, redisFreeCommand);
  return std::string(encoded, static_cast<std::size_t>(length));
}

const platform::Configuration::Usage& RedisConnection::Open() {
  auto configuration = platform::CurrentConfiguration();
  if (configuration != configuration_ || !IsAlive()) {
    configuration_ = std::move(configuration);
    try {
      Begin();
    } catch (...) {
      context_.reset();  // it may be a sentinel's
      trial_end_.reset();
      throw;
    }
  }
  return configuration_->usage;
}

void RedisConnection::Exchange(std::size_t count, const MakeCommand& make, const TakeReply& take) {
  try {
    std::queue<std::size_t> lengths;  // of the commands that are not answered
    std::size_t in_flight = 0;        // their sum
    std::size_t made = 0;
    for (std::size_t answered = 0; answered < count; ++answered) {
      std::string commands;
      for (; made < count && in_flight < kBytesInFlight; ++made) {
        const std::string command = make(made).Encode();
        commands += command;
        in_flight += command.size();
        lengths.push(command.size());
      }
      Send(commands);
      take(answered, *ReceiveResult());
      in_flight -= lengths.front();
      lengths.pop();
    }
  } catch (...) {
    context_.reset();  // the next command would be given the answers that are left
    throw;
  }
}

void RedisConnection::FailUnexpectedReply() {
  Fail(kUnexpectedReplyLine, "the server's answer is not what was asked for");
}

std::string RedisConnection::ServerName() const {
  const platform::Configuration::Usage& usage = configuration_->usage;
  if (!usage.sentinels.empty()) {
    return fmt::format("{}{} (sentinels {})", usage.sentinel_master,
                       master_.empty() ? "" : " at " + master_, fmt::join(usage.sentinels, ", "));
  }
  return usage.socket.empty() ? platform::HostPort{usage.host, usage.port}.Text() : usage.socket;
}

// Between two operations the server has nothing to say: whatever can be read is its farewell.
bool RedisConnection::IsAlive() const {
  if (!context_) {
    return false;
  }
  pollfd socket = {context_->fd, POLLIN, 0};
  return ::poll(&socket, 1, 0) == 0;
}

void RedisConnection::Begin() {
  if (configuration_->usage.sentinels.empty()) {
    Connect();
    LogIn(configuration_->usage.password);
  } else {
    FindMaster();
  }
  SelectDatabase();
}

void RedisConnection::Connect() {
  const platform::Configuration::Usage& usage = configuration_->usage;
  if (usage.socket.empty()) {
    Connect({usage.host, usage.port});
    return;
  }
  // hiredis would cut it and use what lies there.
  if (usage.socket.size() >= sizeof(sockaddr_un::sun_path)) {
    Fail(kPathTooLongLine, "the path is too long for a socket");
  }
  UseContext(redisConnectUnixWithTimeout(usage.socket.c_str(), ConnectTimeout()));
}

void RedisConnection::Connect(const platform::HostPort& server) {
  UseContext(redisConnectWithTimeout(server.host.c_str(), server.port, ConnectTimeout()));
}

void RedisConnection::UseContext(redisContext* context) {
  context_.reset(context);
  if (!context_) {
    throw std::bad_alloc();
  }
  if (context_->err != 0) {
    Fail(kConnectFailedLine, fmt::format("cannot connect: {}", context_->errstr));
  }
  ::fcntl(context_->fd, F_SETFD, FD_CLOEXEC);
  static redisReplyObjectFunctions bounded = BoundArrays(*context_->reader->fn);
  context_->reader->fn = &bounded;
}

void RedisConnection::LogIn(const std::string& password) {
  if (password.empty()) {
    return;
  }
  RedisCommand command("AUTH");
  command.Add({password});
  Send(command);
  const Reply reply = Receive();
  if (reply->type == REDIS_REPLY_ERROR) {
    // Only the error's name: some servers repeat the command, with the password, in its text.
    const std::string_view text(reply->str, reply->len);
    Fail(kLogInFailedLine, fmt::format("the server refuses the password ({})",
                                       text.substr(0, std::min(text.find(' '), std::size_t{20}))));
  }
}

// Sharding proxies know no SELECT; every session begins in database 0 anyway.
void RedisConnection::SelectDatabase() {
  if (configuration_->usage.database == 0) {
    return;
  }
  RedisCommand command("SELECT");
  command.Add({std::to_string(configuration_->usage.database)});
  Send(command);
  ReceiveResult(" when asked for usage.database: a sharding proxy has only database 0");
}

void RedisConnection::Send(const RedisCommand& command) { Send(command.Encode()); }

// Not by hiredis: its write() ends the process with SIGPIPE when the server has gone.
void RedisConnection::Send(std::string_view rest) {
  const Clock::time_point deadline = Deadline();
  while (!rest.empty()) {
    const ssize_t sent =
        ::send(context_->fd, rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      rest.remove_prefix(static_cast<std::size_t>(sent));
    } else if (errno == EAGAIN) {
      Await(POLLOUT, deadline);
    } else if (errno == EPIPE) {
      return;  // the reason may lie among what is still to be received
    } else if (errno != EINTR) {
      Fail(kSendFailedLine, std::generic_category().message(errno));
    }
  }
}

RedisConnection::Reply RedisConnection::ReceiveResult(const char* when_closed) {
  Reply reply = Receive(when_closed);
  if (reply->type == REDIS_REPLY_ERROR) {
    Fail(kErrorReplyLine, std::string(reply->str, std::min(reply->len, kLongestErrorText)));
  }
  return reply;
}

RedisConnection::Reply RedisConnection::Receive(const char* when_closed) {
  const Clock::time_point deadline = Deadline();
  const redisReader& reader = *context_->reader;
  std::size_t received = 0;
  while (true) {
    void* reply = nullptr;
    if (redisGetReplyFromReader(context_.get(), &reply) != REDIS_OK) {
      Fail(kMalformedReplyLine, context_->err == REDIS_ERR_OOM ? kTooLong : context_->errstr);
    }
    if (reply != nullptr) {
      return Reply(static_cast<redisReply*>(reply));
    }
    if (received > kLongestReply) {
      Fail(kReplyTooLongLine, kTooLong);
    }
    Await(POLLIN, deadline);
    const std::size_t before = reader.len;
    if (redisBufferRead(context_.get()) != REDIS_OK) {
      const char* further = context_->err == REDIS_ERR_EOF ? when_closed : "";
      Fail(kReceiveFailedLine, fmt::format("{}{}", context_->errstr, further));
    }
    received += reader.len - before;
  }
}

RedisConnection::Clock::time_point RedisConnection::Deadline() const {
  const std::chrono::seconds most(configuration_->usage.command_timeout);
  return trial_end_ ? *trial_end_ : Clock::now() + most;
}

// hiredis takes a negative time-out for the longest there is.
timeval RedisConnection::ConnectTimeout() const {
  if (!trial_end_) {
    return {configuration_->usage.connect_timeout, 0};
  }
  using std::chrono::microseconds;
  const auto left = std::chrono::ceil<microseconds>(*trial_end_ - Clock::now());
  const auto timeout = std::max(left, microseconds(1000)).count();
  return {timeout / 1000000, timeout % 1000000};
}

// A deadline that has passed is a failure even when there is something to read: the time-out of a
// single read would let a server that trickles its answer hold us up for ever.
void RedisConnection::Await(short events, Clock::time_point deadline) {
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      FailTimeout();
    }
    pollfd socket = {context_->fd, events, 0};
    if (::poll(&socket, 1, static_cast<int>(left.count())) > 0) {
      return;
    }
  }
}

void RedisConnection::FailTimeout() {
  if (trial_end_) {
    throw TrialFailure("no complete answer in time");
  }
  Fail(kTimeoutLine,
       fmt::format("no complete answer within {} s", configuration_->usage.command_timeout));
}

void RedisConnection::Fail(int line, const std::string& reason) {
  if (trial_end_) {
    throw TrialFailure(reason);
  }
  context_.reset();
  throw LogException(velamailserver::ERR_BAD_DB_SESSION,
                     fmt::format("usage store {}: {}", ServerName(), reason), 3, kSourceFile, line);
}

RedisClient::RedisClient() : connection_(std::make_unique<Connection>()) {}

RedisClient::~RedisClient() = default;

}  // namespace quillon::backend
