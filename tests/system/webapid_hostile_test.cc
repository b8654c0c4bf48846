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
#include <fstream>
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
using testing::Not;
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

std::string Chunked(const std::string& token, const std::string& headers,
                    const std::string& chunks) {
  return "POST /webapi HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
         "Authorization: Bearer " +
         token + "\r\n" + headers + "\r\n" + chunks;
}

std::string AnswerTo(const WebServer& server, const std::string& request) {
  return Converse(server.Connect(), request);
}

TEST(WebapidHostileTest, RefusesABodyWhoseEndIsNotClear) {
  const WebServer server("receive_timeout = 2");
  const std::string token = server.Token("boss");
  const std::string hidden = "GET / HTTP/1.1\r\nHost: x\r\n\r\n";
  const std::string length = "Content-Length: ";
  const std::string chunked = "Transfer-Encoding: chunked\r\n";
  for (const std::string& headers :
       {length + "5\r\n" + chunked, chunked + length + "5\r\n",
        length + "5\r\n" + length + "50\r\n", length + "5\r\n" + length + "5\r\n",
        chunked + chunked, "Transfer-Encoding: gzip\r\n" + chunked, length + "-1\r\n",
        length + "+5\r\n", length + "5, 5\r\n", length + "0x5\r\n", length + "\r\n",
        length + "99999999999999999999999\r\n", std::string("Transfer-Encoding: gzip\r\n"),
        length + "18446744073709551615\r\n"}) {
    const std::string answer = AnswerTo(server, Chunked(token, headers, "0\r\n\r\n" + hidden));
    EXPECT_THAT(answer, AnyOf(StartsWith("HTTP/1.1 400 "), StartsWith("HTTP/1.1 413 "))) << headers;
    EXPECT_THAT(answer, Not(HasSubstr("HTTP/1.1 200 "))) << headers;
  }
  for (const char* chunks : {"x\r\n", "-1\r\n", "FFFFFFFFFFFFFFFFF\r\n", "2\r\n{}x\r\n"}) {
    const std::string answer = AnswerTo(server, Chunked(token, chunked, chunks + hidden));
    EXPECT_THAT(answer, AnyOf(StartsWith("HTTP/1.1 4"), std::string())) << chunks;
    EXPECT_THAT(answer, Not(HasSubstr("HTTP/1.1 200 "))) << chunks;
  }
  EXPECT_EQ(server.Call(token, kNames).status, 200);
}

TEST(WebapidHostileTest, RefusesHeadersThatAreNone) {
  const WebServer server("receive_timeout = 2");
  const std::string close = "Connection: close\r\n\r\n";
  const std::string get = "GET / HTTP/1.1\r\n";
  EXPECT_THAT(AnswerTo(server, get + "Host: x\r\n" + close), StartsWith("HTTP/1.1 200 "));
  EXPECT_THAT(AnswerTo(server, get + close), StartsWith("HTTP/1.1 400 ")) << "no host";
  EXPECT_THAT(AnswerTo(server, get + "Host: x\r\nno colon\r\n" + close),
              StartsWith("HTTP/1.1 400 "));
  EXPECT_THAT(AnswerTo(server, "nonsense\r\n\r\n"), Not(StartsWith("HTTP/1.1 2")));
  EXPECT_THAT(AnswerTo(server, "GET / HTTP/3.7\r\nHost: x\r\n" + close),
              Not(StartsWith("HTTP/1.1 2")));
  EXPECT_EQ(server.Get("/").status, 200);
}

TEST(WebapidHostileTest, RefusesAChunkedBodyThatIsTooLarge) {
  const WebServer server("max_body = 10000");
  const std::string token = server.Token("boss");
  std::string chunks;
  for (int i = 0; i < 20; ++i) {
    chunks += "3e8\r\n" + std::string(1000, ' ') + "\r\n";
  }
  EXPECT_THAT(AnswerTo(server, Chunked(token, "Connection: close\r\nTransfer-Encoding: chunked\r\n",
                                       chunks + "0\r\n\r\n")),
              StartsWith("HTTP/1.1 413 "));
}

TEST(WebapidHostileTest, CannotBeMadeToForgeALine) {
  const WebServer server;
  const std::string token = server.Token("boss");
  const WebAnswer answer =
      server.Call(token, R"({"api":"a\u0000b\nc\u001b[2J","version":1,"method":"m\nn"})");
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.envelope["error"]["code"], 404);
  ExpectRefusal(server.Call(server.Token("watcher"),
                            R"({"api":"VELA.Core.Web.TARN\u0000x","version":1,"method":"get"})"),
                403);
  ExpectRefusal(server.Login("boss\nforged line", kWebPassword), 401);
  EXPECT_THAT(server.Log(), Not(HasSubstr("\nforged")));
}

TEST(WebapidHostileTest, TakesUploadsOfAnyName) {
  const WebServer server;
  const std::string token = server.Token("boss");
  const auto part = [](const std::string& name, const std::string& text) {
    return "--bb\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + text + "\r\n";
  };
  const auto send = [&](const std::string& parts) {
    return server.Post(
        {parts + "--bb--\r\n",
         {"Content-Type: multipart/form-data; boundary=bb", "Authorization: Bearer " + token}});
  };
  const std::string import =
      R"({"api":"Quillon.MailServer.Quota","version":1,"method":"import","params":{"file":"x"}})";
  // The part, and not the member of the same name.
  const WebAnswer imported = send(part("request", import) + part("file", "alice,4096,2048\n"));
  EXPECT_EQ(imported.envelope["data"]["rows"], 1) << imported.text;
  for (const std::string& name :
       {std::string(), std::string("__proto__"), std::string("a\0b", 3), std::string(3000, 'n')}) {
    const WebAnswer answer = send(part("request", import) + part(name, "x"));
    EXPECT_THAT(answer.status, AnyOf(200, 400)) << name;
    EXPECT_FALSE(answer.envelope["success"].asBool());
  }
  std::string many = part("request", import);
  for (int i = 0; i < 9; ++i) {
    many += part(std::string(1, static_cast<char>('a' + i)), "x");
  }
  ExpectRefusal(send(many), 400);
  ExpectRefusal(send(part("request", import) + part("request", import)), 400);
}

// Of one process, in kilobytes.
long ResidentSize(int pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
  long total = 0;
  long resident = 0;
  file >> total >> resident;
  return resident * 4;
}

TEST(WebapidHostileTest, BoundsTheMemoryOfBodiesThatArrive) {
  const WebServer server;
  const std::string token = server.Token("boss");
  Connections clients(server);
  constexpr std::size_t kLength = 8 << 20;
  const std::string body(kLength - 1, ' ');  // and never the last byte
  std::vector<int> sockets;
  for (int i = 0; i < 30; ++i) {
    sockets.push_back(clients.Add());
    Say(sockets.back(), fmt::format("POST /webapi HTTP/1.1\r\nHost: x\r\n"
                                    "Content-Type: application/json\r\n"
                                    "Authorization: Bearer {}\r\nContent-Length: {}\r\n\r\n",
                                    token, kLength));
    Say(sockets.back(), body);
  }
  EXPECT_THAT(server.Log(), HasSubstr("503 too many requests at once"));
#ifdef QUILLON_SANITIZED
  constexpr long kMost = 1024 * 1024;  // what was freed stays for a while
#else
  constexpr long kMost = 330 * 1024;
#endif
  EXPECT_LT(ResidentSize(server.Children(kWebFront).at(0)), kMost);
  EXPECT_EQ(server.Get("/").status, 200);
  clients.Close();
  EXPECT_TRUE(Eventually([&] { return server.Call(token, kNames).status == 200; }));
}

TEST(WebapidHostileTest, EndsAConnectionThatNegotiatesAgain) {
  const WebServer server;
  const std::unique_ptr<SSL_CTX, FreeTls> context(::SSL_CTX_new(::TLS_client_method()));
  ::SSL_CTX_set_max_proto_version(context.get(), TLS1_2_VERSION);
  const std::unique_ptr<SSL, FreeTls> tls(::SSL_new(context.get()));
  Connections connections(server);
  ::SSL_set_fd(tls.get(), connections.Add(true));
  ASSERT_EQ(::SSL_connect(tls.get()), 1);
  ::SSL_renegotiate(tls.get());
  EXPECT_NE(::SSL_do_handshake(tls.get()), 1);
  EXPECT_EQ(server.Post({kNames}, true).status, 401);
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
