#include "http_front.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <stdexcept>
#include <utility>

#include <quillon/platform/client_network.h>
#include <velamailserver/maillog.h>

#include "envelope.h"

namespace quillon::webapid {

namespace {

constexpr char kSourceFile[] = "apps/quillon-webapid/http_front";
constexpr int kRefusedLine = 41;
constexpr int kOverdueLine = 47;
constexpr int kLibraryLine = 53;
constexpr int kFailedLine = 59;
constexpr int kTooManyLine = 61;

constexpr char kPath[] = "/webapi";
constexpr char kRequestPart[] = "request";
constexpr std::size_t kMostParts = 2 * 8 + 1;  // the request, and key and content of each upload
constexpr std::size_t kMostBuffered = 128 << 20;
// Of answers whose clients are slow to read; a new call is refused when there are more.
constexpr std::size_t kMostLeaving = 128 << 20;
// A body without a token can only be a login's.
constexpr std::size_t kLargestLogin = 4096;
constexpr char kTlsVersions[] = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";

using Clock = std::chrono::steady_clock;

// An IPv4 address reads as one, also when it arrives at a socket for both.
std::string AddressText(const sockaddr* address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (address->sa_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
    ::inet_ntop(AF_INET, &v4->sin_addr, text.data(), text.size());
  } else if (address->sa_family == AF_INET6) {
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
    if (IN6_IS_ADDR_V4MAPPED(&v6->sin6_addr)) {
      ::inet_ntop(AF_INET, &v6->sin6_addr.s6_addr[12], text.data(), text.size());
    } else {
      ::inet_ntop(AF_INET6, &v6->sin6_addr, text.data(), text.size());
    }
  }
  return text.data();
}

const char* Header(MHD_Connection* connection, const char* name) {
  return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
}

// Whether it is said once, or not at all, how long the body is. Else whoever stands between here
// and the client may believe another length, and what follows it is not the request that they see.
bool IsLengthClear(MHD_Connection* connection) {
  int lengths = 0;
  MHD_get_connection_values(
      connection, MHD_HEADER_KIND,
      [](void* count, MHD_ValueKind, const char* name, const char*) {
        *static_cast<int*>(count) += ::strcasecmp(name, MHD_HTTP_HEADER_CONTENT_LENGTH) == 0 ||
                                     ::strcasecmp(name, MHD_HTTP_HEADER_TRANSFER_ENCODING) == 0;
        return MHD_YES;
      },
      &lengths);
  const char* const encoding = Header(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING);
  return lengths <= 1 && (encoding == nullptr || ::strcasecmp(encoding, "chunked") == 0);
}

// Whether a header's value is that media type, with or without parameters.
bool IsMediaType(const char* value, const char* type) {
  const std::size_t length = std::strlen(type);
  return value != nullptr && ::strncasecmp(value, type, length) == 0 &&
         (value[length] == '\0' || value[length] == ';' || value[length] == ' ');
}

// In milliseconds.
MHD_UNSIGNED_LONG_LONG Due(MHD_Daemon* daemon) {
  MHD_UNSIGNED_LONG_LONG due = 0;
  return MHD_get_timeout(daemon, &due) == MHD_YES ? due : ULLONG_MAX;
}

void FreeText(void* text) {
  const std::unique_ptr<std::string> owner(static_cast<std::string*>(text));
  platform::Wipe(*owner);  // it may hold a token
}

struct FreeResponse {
  void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};

}  // namespace

struct HttpFront::Connection {
  enum class State { kIdle, kReceiving, kCalling, kSending, kClosing };

  void Enter(State next) {
    state = next;
    since = Clock::now();
  }

  MHD_Connection* handle;
  int socket;
  gnutls_session_t tls;  // null without
  std::string address;
  State state = State::kReceiving;
  Time since = Clock::now();
  Request* request = nullptr;
};

struct HttpFront::Request {
  explicit Request(HttpFront& its_front, MHD_Connection* its_handle, Connection& its_connection)
      : front(its_front), handle(its_handle), connection(its_connection) {
    connection.request = this;
  }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;
  ~Request() {
    ClosePostProcessor();
    front.buffered_ -= size;
    front.leaving_ -= answer_size;
    connection.request = nullptr;
  }

  // False when the body ended in the middle of a part.
  bool ClosePostProcessor() {
    return post == nullptr || MHD_destroy_post_processor(std::exchange(post, nullptr)) == MHD_YES;
  }

  HttpFront& front;
  MHD_Connection* handle;
  Connection& connection;
  bool is_checked = false;
  bool is_last = false;  // the connection ends with the answer, and the body is not waited for
  std::optional<platform::WebSessions::Session> session;
  MHD_PostProcessor* post = nullptr;
  std::vector<std::string> parts = {""};  // as a worker gets them
  std::size_t size = 0;                   // bytes of the body so far
  std::optional<webapid::Reply> reply;
  std::size_t answer_size = 0;
};

HttpFront::HttpFront(const FrontSettings& settings, Poller& poller, WorkerPool& workers,
                     LoginApi& logins, RefusalLog& refusals)
    : web_(settings.web),
      poller_(poller),
      workers_(workers),
      logins_(logins),
      refusals_(refusals),
      most_connections_(static_cast<std::size_t>(settings.web.max_connections)),
      most_per_address_(static_cast<std::size_t>(settings.web.max_connections_per_address)) {}

HttpFront::~HttpFront() {
  // The library cannot end while a connection waits for a worker.
  workers_.FailAll();
  for (Daemon& daemon : daemons_) {
    poller_.Remove(daemon.epoll);
    MHD_run(daemon.handle);
    MHD_stop_daemon(daemon.handle);
    static_cast<void>(daemon.listener.Release());  // the library has closed it
  }
}

void HttpFront::Listen(platform::FileDescriptor socket, bool is_tls) {
  std::array<MHD_OptionItem, 3> tls_options = {
      MHD_OptionItem{MHD_OPTION_HTTPS_CERT_CALLBACK, 0,
                     reinterpret_cast<void*>(&ServerCertificate::Retrieve)},
      MHD_OptionItem{MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(kTlsVersions)},
      MHD_OptionItem{MHD_OPTION_END, 0, nullptr}};
  const unsigned int flags = MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG |
                             (is_tls ? static_cast<unsigned int>(MHD_USE_TLS) : 0U);
  const auto memory = static_cast<std::size_t>(web_.max_header) * 2 + 8192;
  MHD_Daemon* const handle = MHD_start_daemon(
      flags, 0, &HttpFront::Admit, this, &HttpFront::Handle, this,  //
      MHD_OPTION_EXTERNAL_LOGGER, &HttpFront::Log, this,            //
      MHD_OPTION_LISTEN_SOCKET, socket.Get(),                       //
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, memory,                   //
      // One more than are admitted: at its own limit the library would not say anything.
      MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned int>(most_connections_ + 1),  //
      MHD_OPTION_NOTIFY_CONNECTION, &HttpFront::NoteConnection, this, MHD_OPTION_URI_LOG_CALLBACK,
      &HttpFront::BeginRequest, this,                             //
      MHD_OPTION_NOTIFY_COMPLETED, &HttpFront::EndRequest, this,  //
      MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1,                       //
      MHD_OPTION_STRICT_FOR_CLIENT, 1,                            //
      MHD_OPTION_ARRAY, is_tls ? tls_options.data() : &tls_options[2], MHD_OPTION_END);
  if (handle == nullptr) {
    throw std::runtime_error("the HTTP server does not start");
  }
  const int epoll = MHD_get_daemon_info(handle, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
  daemons_.push_back({handle, epoll, std::move(socket)});
  // `Run` comes after every wait.
  poller_.Add(epoll, EPOLLIN,
              [this, i = daemons_.size() - 1](std::uint32_t) { daemons_[i].is_ready = true; });
}

void HttpFront::Run(Time now) {
  for (Daemon& daemon : daemons_) {
    // Each run asks the kernel, also when there is nothing to do.
    if (std::exchange(daemon.is_ready, false) || Due(daemon.handle) == 0) {
      MHD_run(daemon.handle);
    }
  }
  if (now - last_check_ >= std::chrono::seconds(1)) {
    last_check_ = now;
    CloseOverdue(now);
  }
}

int HttpFront::Timeout(int longest) const {
  int timeout = longest;
  for (const Daemon& daemon : daemons_) {
    timeout = static_cast<int>(std::min<MHD_UNSIGNED_LONG_LONG>(
        Due(daemon.handle), static_cast<MHD_UNSIGNED_LONG_LONG>(timeout)));
  }
  return timeout;
}

void HttpFront::BeginToStop() {
  if (std::exchange(is_stopping_, true)) {
    return;
  }
  for (Daemon& daemon : daemons_) {
    MHD_quiesce_daemon(daemon.handle);  // gives the socket back
    daemon.listener = platform::FileDescriptor();
  }
}

bool HttpFront::IsIdle() const {
  return std::none_of(connections_.begin(), connections_.end(),
                      [](const Connection& connection) { return connection.request != nullptr; });
}

// Whether there is room for a further connection.
MHD_Result HttpFront::Admit(void* front, const sockaddr* address, socklen_t /*length*/) {
  auto& self = *static_cast<HttpFront*>(front);
  const std::string text = AddressText(address);
  const auto found = self.per_network_.find(platform::ClientNetwork(text));
  const char* reason = nullptr;
  if (self.connections_.size() >= self.most_connections_) {
    reason = "too many connections";
  } else if (found != self.per_network_.end() && found->second >= self.most_per_address_) {
    reason = "too many connections from there";
  }
  if (reason == nullptr) {
    return MHD_YES;
  }
  if (self.refusals_.MayWrite(Clock::now())) {
    maillog(LOG_WARNING, "%s:%d connection from %s refused: %s", kSourceFile, kTooManyLine,
            text.c_str(), reason);
  }
  return MHD_NO;
}

void HttpFront::NoteConnection(void* front, MHD_Connection* connection, void** context,
                               MHD_ConnectionNotificationCode code) {
  auto& connections = static_cast<HttpFront*>(front)->connections_;
  auto& per_network = static_cast<HttpFront*>(front)->per_network_;
  if (code == MHD_CONNECTION_NOTIFY_STARTED) {
    const auto info = [&](MHD_ConnectionInfoType type) {
      return MHD_get_connection_info(connection, type);
    };
    const auto* tls = info(MHD_CONNECTION_INFO_GNUTLS_SESSION);
    const auto* address = info(MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    connections.push_back(
        {connection, info(MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd,
         tls == nullptr ? nullptr : static_cast<gnutls_session_t>(tls->tls_session),
         AddressText(address->client_addr)});
    *context = &connections.back();
    ++per_network[platform::ClientNetwork(connections.back().address)];
  } else {
    const auto found =
        per_network.find(platform::ClientNetwork(static_cast<Connection*>(*context)->address));
    if (--found->second == 0) {
      per_network.erase(found);
    }
    connections.remove_if([&](const Connection& one) { return &one == *context; });
  }
}

void* HttpFront::BeginRequest(void* front, const char* /*uri*/, MHD_Connection* connection) {
  auto& owner = *static_cast<Connection*>(
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
  if (owner.state == Connection::State::kIdle) {
    owner.Enter(Connection::State::kReceiving);
  }
  return new Request(*static_cast<HttpFront*>(front), connection, owner);
}

void HttpFront::EndRequest(void* /*front*/, MHD_Connection* /*connection*/, void** request,
                           MHD_RequestTerminationCode /*code*/) {
  const std::unique_ptr<Request> owner(static_cast<Request*>(std::exchange(*request, nullptr)));
  if (owner && owner->connection.state != Connection::State::kClosing) {
    owner->connection.Enter(Connection::State::kIdle);
  }
}

MHD_Result HttpFront::Handle(void* front, MHD_Connection* /*connection*/, const char* path,
                             const char* method, const char* /*version*/, const char* data,
                             std::size_t* size, void** context) {
  auto& self = *static_cast<HttpFront*>(front);
  Request& request = *static_cast<Request*>(*context);
  try {
    if (!std::exchange(request.is_checked, true)) {
      self.Check(request, path, method);
      return request.is_last ? self.Reply(request) : MHD_YES;
    }
    if (*size > 0) {
      self.TakeData(request, data, std::exchange(*size, 0));
      return MHD_YES;
    }
    if (!request.reply) {
      self.Finish(request);
    }
    return request.reply ? self.Reply(request) : MHD_YES;
  } catch (const std::exception& error) {
    maillog(LOG_ERR, "%s:%d a request failed: %s", kSourceFile, kFailedLine, error.what());
    return MHD_NO;
  }
}

// Looks at the line and the headers. A request that is refused here gets its answer when its body
// has arrived, and been thrown away: a client that is still sending would not read it.
void HttpFront::Check(Request& request, const char* path, const char* method) {
  const auto header_size =
      MHD_get_connection_info(request.handle, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE)->header_size;
  const bool is_post = std::strcmp(method, MHD_HTTP_METHOD_POST) == 0;
  const bool is_get = std::strcmp(method, MHD_HTTP_METHOD_GET) == 0 ||
                      std::strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;
  if (is_stopping_) {
    Refuse(request, 503, "the server stops");
  } else if (header_size > static_cast<std::size_t>(web_.max_header)) {
    Refuse(request, 431, "the headers are too large");
  } else if (!IsLengthClear(request.handle)) {
    Refuse(request, 400, "the length of the body is not clear");
    request.is_last = true;
  } else if (std::strcmp(path, "/") == 0 && is_get) {
    Json::Value data;
    data["product"] = "quillon";
    request.reply = {200, SuccessText(data)};
  } else if (std::strcmp(path, kPath) != 0) {
    Refuse(request, 404, "there is only /webapi");
  } else if (!is_post) {
    Refuse(request, 405, "only POST");
  } else {
    CheckBody(request);
  }
}

void HttpFront::CheckBody(Request& request) {
  const char* const authorization = Header(request.handle, MHD_HTTP_HEADER_AUTHORIZATION);
  request.session = logins_.Find(authorization, Clock::now());
  if (authorization != nullptr && !request.session) {
    Refuse(request, 401, "unknown or expired token");
    return;
  }
  const char* const length = Header(request.handle, MHD_HTTP_HEADER_CONTENT_LENGTH);
  // The library has checked that it is a number.
  if (length != nullptr &&
      std::strtoull(length, nullptr, 10) > static_cast<unsigned long long>(web_.max_body)) {
    Refuse(request, MHD_HTTP_CONTENT_TOO_LARGE, "the body is too large");
    request.is_last = true;
    return;
  }
  const char* const type = Header(request.handle, MHD_HTTP_HEADER_CONTENT_TYPE);
  if (IsMediaType(type, MHD_HTTP_POST_ENCODING_MULTIPART_FORMDATA)) {
    request.post = MHD_create_post_processor(request.handle, 4096, &HttpFront::TakePart, &request);
    if (request.post == nullptr) {
      Refuse(request, 400, "the multipart body has no boundary");
    }
  } else if (!IsMediaType(type, "application/json")) {
    Refuse(request, 415, "application/json or multipart/form-data");
  }
}

void HttpFront::TakeData(Request& request, const char* data, std::size_t size) {
  if (request.reply) {
    return;
  }
  const std::size_t most =
      request.session ? static_cast<std::size_t>(web_.max_body) : kLargestLogin;
  if (request.size + size > most) {
    if (request.session) {
      Refuse(request, 413, "the body is too large");
    } else {
      Refuse(request, 401, "a token is needed");
    }
    return;
  }
  if (buffered_ + size > kMostBuffered) {
    Refuse(request, 503, "too many requests at once");
    return;
  }
  request.size += size;
  buffered_ += size;
  if (request.post == nullptr) {
    request.parts.front().append(data, size);
  } else if (MHD_post_process(request.post, data, size) != MHD_YES && !request.reply) {
    Refuse(request, 400, "the multipart body does not parse");
  }
}

MHD_Result HttpFront::TakePart(void* context, MHD_ValueKind /*kind*/, const char* key,
                               const char* /*file_name*/, const char* /*type*/,
                               const char* /*encoding*/, const char* data, std::uint64_t offset,
                               std::size_t size) {
  auto& parts = static_cast<Request*>(context)->parts;
  if (key == nullptr) {
    return MHD_NO;
  }
  if (std::strcmp(key, kRequestPart) == 0) {
    parts.front().append(data, size);
    return MHD_YES;
  }
  // A part's first piece may be empty, and then the next one has the offset 0, too.
  const bool has_begun = parts.size() > 1 && parts[parts.size() - 2] == key && parts.back().empty();
  if (offset == 0 && !has_begun) {
    if (parts.size() + 2 > kMostParts) {
      return MHD_NO;
    }
    parts.insert(parts.end(), {key, ""});
  }
  parts.back().append(data, size);
  return MHD_YES;
}

// The whole request has arrived.
void HttpFront::Finish(Request& request) {
  if (!request.ClosePostProcessor()) {
    Refuse(request, 400, "the multipart body is cut short");
    return;
  }
  const std::string& text = request.parts.front();
  const bool may_be_login =
      text.size() <= kLargestLogin && text.find(kLoginApi) != std::string::npos;
  if (may_be_login || !request.session) {
    Json::Value document;
    const bool is_object = ParseObject(text, document);
    const Json::Value& call = document;
    if (is_object && call["api"] == kLoginApi) {
      request.reply =
          logins_.Run(call, request.connection.address,
                      Header(request.handle, MHD_HTTP_HEADER_AUTHORIZATION), Clock::now());
      return;
    }
  }
  if (!request.session) {
    Refuse(request, 401, "a token is needed");
    return;
  }
  Submit(request);
}

void HttpFront::Submit(Request& request) {
  if (leaving_ > kMostLeaving) {
    Refuse(request, 503, "too many answers are waiting to be read");
    return;
  }
  const Role role = request.session->role == platform::WebRole::kAdmin ? kAdmin : kMonitor;
  const auto deadline = Clock::now() + std::chrono::seconds(web_.request_timeout);
  buffered_ -= std::exchange(request.size, 0);
  const bool is_taken = workers_.Submit(role, std::move(request.parts), deadline,
                                        [this, &request](int status, std::string text) {
                                          request.reply = {status, std::move(text)};
                                          Resume(request.handle);
                                        });
  if (!is_taken) {
    Refuse(request, 503, "too many calls are waiting");
    request.reply->retry_after = std::chrono::seconds(1);
    return;
  }
  request.connection.Enter(Connection::State::kCalling);
  MHD_suspend_connection(request.handle);
}

// The library wakes nobody up for it.
void HttpFront::Resume(MHD_Connection* connection) {
  MHD_resume_connection(connection);
  const MHD_Daemon* const owner =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_DAEMON)->daemon;
  for (Daemon& daemon : daemons_) {
    daemon.is_ready |= daemon.handle == owner;
  }
}

void HttpFront::Refuse(Request& request, int status, const char* message) {
  request.reply = Refusal(status, message);
  request.parts.clear();
  request.parts.emplace_back();
  if (refusals_.MayWrite(Clock::now())) {
    maillog(LOG_WARNING, "%s:%d request from %s refused: %d %s", kSourceFile, kRefusedLine,
            request.connection.address.c_str(), status, message);
  }
}

MHD_Result HttpFront::Reply(Request& request) {
  webapid::Reply& reply = *request.reply;
  auto text = std::make_unique<std::string>(std::move(reply.text));
  const std::unique_ptr<MHD_Response, FreeResponse> response(
      MHD_create_response_from_buffer_with_free_callback_cls(text->size(), text->data(), &FreeText,
                                                             text.get()));
  if (!response) {
    return MHD_NO;
  }
  request.answer_size = text.release()->size();  // the response's now
  leaving_ += request.answer_size;
  const auto add = [&](const char* name, const char* value) {
    MHD_add_response_header(response.get(), name, value);
  };
  add(MHD_HTTP_HEADER_CONTENT_TYPE, "application/json");
  add(MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
  if (reply.status == MHD_HTTP_UNAUTHORIZED) {
    add(MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Bearer");
  }
  if (reply.status == MHD_HTTP_METHOD_NOT_ALLOWED) {
    add(MHD_HTTP_HEADER_ALLOW, MHD_HTTP_METHOD_POST);
  }
  if (reply.retry_after.count() > 0) {
    add(MHD_HTTP_HEADER_RETRY_AFTER, std::to_string(reply.retry_after.count()).c_str());
  }
  if (is_stopping_ || request.is_last) {
    add(MHD_HTTP_HEADER_CONNECTION, "close");
  }
  request.connection.Enter(Connection::State::kSending);
  return MHD_queue_response(request.handle, static_cast<unsigned int>(reply.status),
                            response.get());
}

// The library's own time-out starts anew with every byte.
void HttpFront::CloseOverdue(Time now) {
  const auto limit = [this](Connection::State state) {
    switch (state) {
      case Connection::State::kIdle:
        return std::chrono::seconds(web_.idle_timeout);
      case Connection::State::kReceiving:
        return std::chrono::seconds(web_.receive_timeout);
      case Connection::State::kSending:
        return std::chrono::seconds(web_.request_timeout);
      default:
        return std::chrono::seconds::max();
    }
  };
  for (Connection& connection : connections_) {
    const bool is_open = connection.state != Connection::State::kCalling &&
                         connection.state != Connection::State::kClosing;
    if (!is_open || now - connection.since < limit(connection.state)) {
      continue;
    }
    if (connection.state == Connection::State::kReceiving) {
      SayTooSlow(connection);
    }
    connection.Enter(Connection::State::kClosing);
    ::shutdown(connection.socket, SHUT_RDWR);
  }
}

// The library answers no request that has not arrived.
void HttpFront::SayTooSlow(const Connection& connection) {
  const std::string text = FailureText(408, "the request did not arrive in time");
  const std::string answer =
      "HTTP/1.1 408 Request Timeout\r\nContent-Type: application/json\r\nConnection: close\r\n"
      "Content-Length: " +
      std::to_string(text.size()) + "\r\n\r\n" + text;
  if (connection.tls != nullptr) {
    static_cast<void>(gnutls_record_send(connection.tls, answer.data(), answer.size()));
  } else {
    static_cast<void>(
        ::send(connection.socket, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
  }
  if (refusals_.MayWrite(Clock::now())) {
    maillog(LOG_WARNING, "%s:%d request from %s refused: 408 too slow", kSourceFile, kOverdueLine,
            connection.address.c_str());
  }
}

void HttpFront::Log(void* front, const char* format, va_list arguments) {
  if (!static_cast<HttpFront*>(front)->refusals_.MayWrite(Clock::now())) {
    return;
  }
  std::array<char, 512> text{};
  static_cast<void>(std::vsnprintf(text.data(), text.size(), format, arguments));
  text[std::strcspn(text.data(), "\n")] = '\0';
  maillog(LOG_WARNING, "%s:%d %s", kSourceFile, kLibraryLine, text.data());
}

}  // namespace quillon::webapid
