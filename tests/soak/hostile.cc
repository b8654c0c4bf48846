#include "hostile.h"

#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <memory>
#include <thread>

#include <fmt/format.h>

#include "calls.h"

namespace quillon::soak {

namespace {

using test::WebAnswer;
using test::WebClient;

struct FreeTls {
  void operator()(SSL* tls) const { ::SSL_free(tls); }
  void operator()(SSL_CTX* context) const { ::SSL_CTX_free(context); }
};

// A TLS connection that ends without a goodbye.
class Connection {
 public:
  explicit Connection(const test::WebServer& server)
      : context_(::SSL_CTX_new(::TLS_client_method())),
        tls_(::SSL_new(context_.get())),
        socket_(server.Connect(true)) {
    ::SSL_set_fd(tls_.get(), socket_);
    is_open_ = ::SSL_connect(tls_.get()) == 1;
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() {
    const linger at_once{1, 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    ::close(socket_);
  }

  bool is_open() const { return is_open_; }
  bool Send(const std::string& text) {
    return ::SSL_write(tls_.get(), text.data(), static_cast<int>(text.size())) > 0;
  }
  // What comes next, at most 64 bytes; nothing at the end.
  std::string Receive() {
    std::array<char, 64> piece{};
    const int got = ::SSL_read(tls_.get(), piece.data(), static_cast<int>(piece.size()));
    return got > 0 ? std::string(piece.data(), static_cast<std::size_t>(got)) : "";
  }

 private:
  std::unique_ptr<SSL_CTX, FreeTls> context_;
  std::unique_ptr<SSL, FreeTls> tls_;
  int socket_;
  bool is_open_ = false;
};

std::string Request(const std::string& token, const std::string& body) {
  return fmt::format(
      "POST /webapi HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
      "Authorization: Bearer {}\r\nContent-Length: {}\r\n\r\n{}",
      token, body.size(), body);
}

}  // namespace

Hostile::Hostile(const World& world, Tally& tally, std::size_t number)
    : world_(world),
      tally_(tally),
      random_(static_cast<unsigned int>(2000 + number)),
      token_(world.server().Token("boss")) {}

void Hostile::Act() {
  const std::string request = Request(token_, CallText("Quillon.MailServer.User", "names", "null"));
  switch (random_() % 8) {
    case 0:
      return Drip();
    case 1:
      return SendNonsense();
    case 2:
      return SendLongHeader();
    case 3:
      return SendHalf(request.substr(0, request.size() - 1));
    case 4:
      return SendHalf(request.substr(0, random_() % request.size()));
    case 5:
      return SendBadRequest();
    default:
      LeaveInMidAnswer();
  }
}

void Hostile::LeaveInMidAnswer() {
  Connection connection(world_.server());
  const bool is_sent =
      connection.Send(Request(token_, CallText("Quillon.MailServer.User", "names", "null")));
  if (random_() % 2 == 0) {
    const std::string begin = connection.Receive();
    tally_.Count("left", {is_sent ? 200 : 0, begin, "", {}},
                 begin.rfind("HTTP/1.1 200", 0) == 0 || begin.rfind("HTTP/1.1 502", 0) == 0);
  }
}

void Hostile::SendHalf(const std::string& part) {
  Connection connection(world_.server());
  connection.Send(part);
  std::this_thread::sleep_for(std::chrono::milliseconds(random_() % 200));
}

// A byte now and then, until the server has enough of it.
void Hostile::Drip() {
  Connection connection(world_.server());
  const auto begin = std::chrono::steady_clock::now();
  while (connection.Send("G") &&
         std::chrono::steady_clock::now() - begin < std::chrono::seconds(10)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  if (std::chrono::steady_clock::now() - begin >= std::chrono::seconds(10)) {
    tally_.AddWrong("a connection that drips stays open");
  }
}

void Hostile::SendNonsense() {
  const int socket = world_.server().Connect(random_() % 2 == 0);
  const std::string answer = test::Converse(socket, "\x16\x03\x01\x02 nonsense\r\n\r\n");
  tally_.Count("nonsense", {0, answer, "", {}}, answer.rfind("HTTP/1.1 2", 0) != 0);
}

void Hostile::SendLongHeader() {
  const std::size_t size = random_() % 2 == 0 ? 20'000 : 200'000;
  const WebAnswer answer =
      WebClient(world_.server().Url(true))
          .Post({kPlainCall,
                 {"Content-Type: application/json", "Authorization: Bearer " + token_,
                  "X-Long: " + std::string(size, 'x')}});
  tally_.Count("long-header", answer,
               answer.status == 431 || (size > 50'000 && answer.status == 0));
}

void Hostile::SendBadRequest() {
  WebClient client(world_.server().Url(true));
  const WebAnswer unknown = client.Call("x" + token_, kPlainCall);
  tally_.Count("unknown-token", unknown, unknown.status == 401);
  const WebAnswer broken = client.Call(token_, "{\"api\":");
  tally_.Count("no-request", broken, broken.status == 400);
  const WebAnswer large = client.Call(token_, std::string(9'000'000, ' '));
  tally_.Count("large-body", large, large.status == 413 || large.status == 0);
}

}  // namespace quillon::soak
