#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/certificate.h"

namespace quillon::test {

/// What a client sent.
struct ReceivedRequest {
  std::string head;  ///< request line and headers, as they came
  std::string body;  ///< as many bytes as the headers say
};

/// One client's connection, as a script sees it.
class Conversation {
 public:
  Conversation(int fd, SSL* tls) : fd_(fd), tls_(tls) {}

  /// The next request; nothing when the client has left.
  std::optional<ReceivedRequest> Next();
  /// False when the client has left.
  bool Send(std::string_view bytes);
  /// A whole answer.
  bool Answer(std::string_view body, std::string_view status = "200 OK");
  /// Says nothing until the client leaves or the server stops.
  void WaitForEnd();
  /// The end of the script will reset the connection.
  void ResetAtEnd() const;

 private:
  bool Receive();

  const int fd_;
  SSL* const tls_;
  std::string received_;
};

/// A web server on loopback that does what a script says, for each connection in a thread of its
/// own. With a certificate it speaks TLS.
class ScriptedServer {
 public:
  using Script = std::function<void(Conversation&)>;
  /// Changes what TLS it takes.
  using TlsSetup = std::function<void(SSL_CTX*)>;

  explicit ScriptedServer(Script script, const Certificate* certificate = nullptr,
                          const TlsSetup& setup = nullptr);
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;
  ~ScriptedServer();

  int port() const { return port_; }
  /// PROTOCOL://127.0.0.1:PORT
  std::string URL() const;
  /// Connections so far.
  int connections() const { return connections_; }

 private:
  void Accept();
  void Serve(int fd);

  Script script_;
  std::unique_ptr<SSL_CTX, decltype(&::SSL_CTX_free)> tls_{nullptr, ::SSL_CTX_free};
  int listener_;
  int port_ = 0;
  std::atomic<int> connections_ = 0;
  std::mutex mutex_;
  std::vector<int> open_;
  std::vector<std::thread> threads_;
  std::thread accepting_;
};

/// A script that answers every request with the same.
ScriptedServer::Script AnswerAlways(std::string body, std::string status = "200 OK");
/// A script that sends these bytes after the first request, and hangs up.
ScriptedServer::Script SendAndHangUp(std::string bytes);

}  // namespace quillon::test
