#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <json/value.h>

#include "support/program.h"
#include "support/temporary_folder.h"

namespace quillon::test {

/// The password of all accounts.
inline constexpr char kWebPassword[] = "correct horse";

inline constexpr char kWebWorker[] = "quillon-webapid-worker";
inline constexpr char kWebFront[] = "quillon-webapid-front";

/// A call that anybody with a token may make.
inline constexpr char kNames[] =
    R"({"api":"Quillon.MailServer.User","version":1,"method":"names"})";

struct WebAnswer {
  int status = 0;  ///< 0: no answer
  std::string text;
  std::string certificate;  ///< what is known of that of a TLS connection
  Json::Value envelope;
};

/// The body and the headers of a POST.
struct WebCall {
  std::string text;
  std::vector<std::string> headers = {"Content-Type: application/json"};
};

/// A client that keeps its connection from one call to the next.
class WebClient {
 public:
  explicit WebClient(const std::string& url);

  WebAnswer Get();
  WebAnswer Post(const WebCall& call);
  /// With a token, as a program would.
  WebAnswer Call(const std::string& token, const std::string& text);
  /// Logs in; the last answer of the server's. `finish` gets the last call of the client's.
  WebAnswer Login(const std::string& account, const std::string& password,
                  std::string* finish = nullptr, const Json::Value& lifetime = Json::Value());

 private:
  WebAnswer Exchange();

  std::shared_ptr<void> handle_;  // of the HTTP library
};

/// A cluster host's web server on loopback, with the mail user alice and the accounts "boss"
/// ("admin") and "watcher" ("monitor").
class WebServer {
 public:
  /// `settings` are further lines of [web].
  explicit WebServer(const std::string& settings = "");

  const TemporaryFolder& folder() const { return folder_; }
  BackgroundProgram& program() { return *program_; }
  std::string accounts_file() const { return folder_ / "accounts"; }
  std::string configuration_file() const { return folder_ / "mailserver.toml"; }
  int http_port() const { return http_port_; }
  int https_port() const { return https_port_; }
  /// How it was started.
  std::vector<std::string> CommandLine() const;

  /// Where it takes calls.
  std::string Url(bool tls) const;
  /// Each over a connection of its own; but for the first argument, what `WebClient` does.
  WebAnswer Get(const std::string& path) const;
  WebAnswer Post(const WebCall& call, bool tls = false) const;
  WebAnswer Call(const std::string& token, const std::string& text) const;
  WebAnswer Login(const std::string& account, const std::string& password,
                  std::string* finish = nullptr, const Json::Value& lifetime = Json::Value()) const;
  std::string Token(const std::string& account) const;

  /// A connection of the test's own; the caller closes it.
  int Connect(bool tls = false) const;
  /// Process ids of its children that run this program.
  std::vector<int> Children(const std::string& name) const;
  std::string Log() const { return folder_.Read("mail.log"); }

 private:
  TemporaryFolder folder_;
  int http_port_;
  int https_port_;
  std::unique_ptr<BackgroundProgram> program_;
};

/// Sends what there is to send, reads until the server closes, and closes.
std::string Converse(int socket, const std::string& text);

/// An envelope with that status as its code.
void ExpectRefusal(const WebAnswer& answer, int status);

/// Whether it comes true within 15 seconds.
template <typename Condition>
bool Eventually(const Condition& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

}  // namespace quillon::test
