// Clients that mean harm, or are merely broken.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include "system/web_server.h"

namespace quillon::test {
namespace {

using testing::AnyOf;
using testing::HasSubstr;
using testing::StartsWith;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string Bearing(const std::string& token, const std::string& text) {
  return "POST /webapi HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
         "Authorization: Bearer " +
         token + "\r\nContent-Length: " + std::to_string(text.size()) + "\r\n\r\n" + text;
}

void Say(int socket, const std::string& text) {
  ASSERT_EQ(::send(socket, text.data(), text.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(text.size()));
}

class Connections {
 public:
  explicit Connections(const WebServer& server) : server_(server) {}
  Connections(const Connections&) = delete;
  Connections& operator=(const Connections&) = delete;
  ~Connections() { Close(); }

  int Add(bool tls = false) {
    sockets_.push_back(server_.Connect(tls));
    return sockets_.back();
  }
  void Close() {
    for (const int socket : sockets_) {
      ::close(socket);
    }
    sockets_.clear();
  }

 private:
  const WebServer& server_;
  std::vector<int> sockets_;
};

// How long the server bears a client that sends a byte now and then, and its last words.
std::chrono::milliseconds Drip(int socket, const std::string& text, std::string& answer) {
  const auto begin = Clock::now();
  for (std::size_t i = 0; i < text.size() && Clock::now() - begin < 10s; ++i) {
    if (::send(socket, &text[i], 1, MSG_NOSIGNAL) != 1) {
      break;
    }
    std::this_thread::sleep_for(100ms);
    std::array<char, 4096> piece{};
    const ssize_t got = ::recv(socket, piece.data(), piece.size(), MSG_DONTWAIT);
    if (got > 0) {
      answer.append(piece.data(), static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EAGAIN) {
      break;
    }
  }
  ::close(socket);
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
}

TEST(WebapidHostileTest, ClosesAConnectionThatDrips) {
  const WebServer server("receive_timeout = 1");
  const std::string head = "POST /webapi HTTP/1.1\r\nHost: x\r\nContent-Length: 1000\r\n";
  for (const std::string& start : {std::string(), head, head + "\r\n"}) {
    const int socket = server.Connect();
    Say(socket, start);
    std::string answer;
    EXPECT_LT(Drip(socket, std::string(200, start.empty() ? 'G' : ' '), answer), 4s);
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 408 "));
  }
  std::string answer;
  // The beginning of a handshake.
  const std::string hello = std::string("\x16\x03\x01\x02\x00\x01", 6) + std::string(200, 'x');
  EXPECT_LT(Drip(server.Connect(true), hello, answer), 4s);
  EXPECT_EQ(server.Call(server.Token("boss"), kNames).status, 200);
}

TEST(WebapidHostileTest, ServesBesideAThousandIdleConnections) {
  const rlimit many{4096, 4096};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &many), 0);
  const WebServer server("max_connections = 1100\nmax_connections_per_address = 1100");
  Connections idle(server);
  for (int i = 0; i < 1000; ++i) {
    idle.Add(i % 2 == 0);
  }
  const auto begin = Clock::now();
  EXPECT_EQ(server.Call(server.Token("boss"), kNames).status, 200);
  EXPECT_LT(Clock::now() - begin, 5s);
}

// How many of so many connections, half of them to either port, the server closes at once.
int ClosedOf(const WebServer& server, int count) {
  Connections some(server);
  std::vector<int> sockets;
  for (int i = 0; i < count; ++i) {
    sockets.push_back(some.Add(i % 2 == 0));
  }
  std::this_thread::sleep_for(300ms);
  char byte = 0;
  return static_cast<int>(std::count_if(sockets.begin(), sockets.end(), [&](int one) {
    return ::recv(one, &byte, 1, MSG_DONTWAIT) == 0;
  }));
}

TEST(WebapidHostileTest, LimitsTheConnectionsOfBothPortsTogether) {
  const WebServer server("max_connections = 4");
  // More of them while the server has not noticed yet that a former connection is over.
  EXPECT_TRUE(Eventually([&] { return ClosedOf(server, 6) == 2; }));
  EXPECT_THAT(server.Log(), HasSubstr("connection from 127.0.0.1 refused: too many connections\n"));
  EXPECT_TRUE(Eventually([&] { return server.Get("/").status == 200; }));
}

TEST(WebapidHostileTest, LimitsTheConnectionsOfAnAddress) {
  const WebServer server("max_connections_per_address = 2");
  EXPECT_TRUE(Eventually([&] { return ClosedOf(server, 3) == 1; }));
  EXPECT_THAT(server.Log(), HasSubstr("refused: too many connections from there"));
  EXPECT_TRUE(Eventually([&] { return server.Get("/").status == 200; }));
}

TEST(WebapidHostileTest, RefusesCallsWhenTooManyWait) {
  const WebServer server("workers = 1\nmax_connections_per_address = 400");
  const std::string token = server.Token("boss");
  ASSERT_EQ(server.Call(token, kNames).status, 200);
  const int worker = server.Children(kWebWorker).at(0);
  ASSERT_EQ(::kill(worker, SIGSTOP), 0);
  Connections waiting(server);
  for (int i = 0; i < 1 + 256; ++i) {  // one that is being answered, and those that wait for it
    Say(waiting.Add(), Bearing(token, kNames));
  }
  const int last = waiting.Add();
  Say(last, Bearing(token, kNames));
  std::array<char, 4096> answer{};
  EXPECT_GT(::recv(last, answer.data(), answer.size() - 1, 0), 0);
  EXPECT_THAT(answer.data(), StartsWith("HTTP/1.1 503 "));
  EXPECT_THAT(answer.data(), HasSubstr("Retry-After: 1\r\n"));
  waiting.Close();
  ASSERT_EQ(::kill(worker, SIGCONT), 0);
  EXPECT_TRUE(Eventually([&] { return server.Call(token, kNames).status == 200; }));
}

TEST(WebapidHostileTest, RefusesALoginThatIsPlayedAgain) {
  const WebServer server;
  std::string finish;
  ASSERT_EQ(server.Login("boss", kWebPassword, &finish).status, 200);
  ExpectRefusal(server.Post({finish}), 401);

  // The same proof for another login of the same account.
  const WebAnswer started =
      server.Post({R"({"api":"VELA.Core.Login","version":1,"method":"start",)"
                   R"("params":{"message":"biwsbj1ib3NzLHI9ZnlrbytkMmxiYkZnT05Sdjlxa3hkYXdM"}})"});
  ASSERT_EQ(started.status, 200) << started.text;
  Json::Value again;
  ASSERT_TRUE(Json::Reader().parse(finish, again));
  again["params"]["login"] = started.envelope["data"]["login"];
  ExpectRefusal(server.Post({Json::FastWriter().write(again)}), 401);
}

TEST(WebapidHostileTest, ClosesAConnectionThatDoesNotReadItsAnswer) {
  const WebServer server("request_timeout = 3\nmax_connections = 1");
  std::string users;  // so many that their names fill all that lies between server and client
  for (int uid = 1000; uid < 59000; ++uid) {
    users += fmt::format("u{0:x>200}:x:{0}:100::/nonexistent:/usr/sbin/nologin\n", uid);
  }
  server.folder().Write("passwd", users);
  const std::string token = server.Token("boss");
  Connections connections(server);
  const std::string call = Bearing(token, kNames);
  // Refused while the server has not noticed yet that the last connection is over.
  ASSERT_TRUE(Eventually([&] {
    const int socket = connections.Add();
    static_cast<void>(::send(socket, call.data(), call.size(), MSG_NOSIGNAL));
    std::array<char, 13> begin{};
    static_cast<void>(::recv(socket, begin.data(), begin.size() - 1, MSG_WAITALL));
    return begin.data() == std::string("HTTP/1.1 200");
  }));
  EXPECT_EQ(server.Get("/").status, 0) << "there is only room for one";
  EXPECT_TRUE(Eventually([&] { return server.Get("/").status == 200; }));
}

struct FreeTls {
  void operator()(SSL* tls) const { ::SSL_free(tls); }
  void operator()(SSL_CTX* context) const { ::SSL_CTX_free(context); }
};

// The reason why a handshake with that version fails; 0 when it does not.
int HandshakeError(const WebServer& server, int version) {
  const std::unique_ptr<SSL_CTX, FreeTls> context(::SSL_CTX_new(::TLS_client_method()));
  ::SSL_CTX_set_cipher_list(context.get(), "ALL:@SECLEVEL=0");  // else it would not even ask
  ::SSL_CTX_set_min_proto_version(context.get(), version);
  ::SSL_CTX_set_max_proto_version(context.get(), version);
  const std::unique_ptr<SSL, FreeTls> tls(::SSL_new(context.get()));
  Connections connections(server);
  ::SSL_set_fd(tls.get(), connections.Add(true));
  ::ERR_clear_error();
  return ::SSL_connect(tls.get()) == 1 ? 0 : ERR_GET_REASON(::ERR_peek_error());
}

TEST(WebapidHostileTest, SpeaksTls12AndNewerOnly) {
  const WebServer server;
  // The server is who ends it.
  EXPECT_THAT(HandshakeError(server, TLS1_1_VERSION),
              AnyOf(SSL_R_TLSV1_ALERT_PROTOCOL_VERSION, SSL_R_UNEXPECTED_EOF_WHILE_READING));
  EXPECT_EQ(HandshakeError(server, TLS1_2_VERSION), 0);
  EXPECT_EQ(HandshakeError(server, TLS1_3_VERSION), 0);
}

TEST(WebapidHostileTest, TakesAnUploadThatArrivesByteByByte) {
  const WebServer server;
  std::string body =
      "--frontier\r\nContent-Disposition: form-data; name=\"request\"\r\n\r\n"
      R"({"api":"Quillon.MailServer.Quota","version":1,"method":"import"})";
  for (int i = 0; i < 8; ++i) {
    body +=
        "\r\n--frontier\r\nContent-Disposition: form-data; name=\"file\"; filename=\"a\"\r\n\r\n"
        "alice,4096,2048\r\n";
  }
  body += "\r\n--frontier--\r\n";
  const int socket = server.Connect();
  Say(socket, "POST /webapi HTTP/1.1\r\nHost: x\r\nConnection: close\r\nAuthorization: Bearer " +
                  server.Token("boss") +
                  "\r\nContent-Type: multipart/form-data; boundary=frontier\r\nContent-Length: " +
                  std::to_string(body.size()) + "\r\n\r\n");
  constexpr int kAtOnce = 1;
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &kAtOnce, sizeof(kAtOnce));
  for (const char byte : body) {
    Say(socket, std::string(1, byte));
    std::this_thread::sleep_for(200us);
  }
  EXPECT_THAT(Converse(socket, ""), HasSubstr("\"rows\":1"));
}

}  // namespace
}  // namespace quillon::test
