#include "system/web_server.h"

#include <curl/curl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include <quillon/platform/web_accounts.h>

#include "support/child_processes.h"
#include "support/loopback.h"
#include "support/scram_client.h"

namespace quillon::test {

namespace {

std::size_t Collect(const char* data, std::size_t size, std::size_t count, void* text) {
  static_cast<std::string*>(text)->append(data, size * count);
  return size * count;
}

std::string FirstCertificate(CURL* handle) {
  curl_certinfo* info = nullptr;
  curl_easy_getinfo(handle, CURLINFO_CERTINFO, &info);
  std::string text;
  if (info != nullptr && info->num_of_certs > 0) {
    for (const curl_slist* line = info->certinfo[0]; line != nullptr; line = line->next) {
      text += std::string(line->data) + "\n";
    }
  }
  return text;
}

}  // namespace

WebClient::WebClient(const std::string& url) : handle_(::curl_easy_init(), ::curl_easy_cleanup) {
  curl_easy_setopt(handle_.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle_.get(), CURLOPT_PROXY, "");
  curl_easy_setopt(handle_.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle_.get(), CURLOPT_TIMEOUT, 20L);
  curl_easy_setopt(handle_.get(), CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(handle_.get(), CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(handle_.get(), CURLOPT_CERTINFO, 1L);
  curl_easy_setopt(handle_.get(), CURLOPT_WRITEFUNCTION, &Collect);
}

WebAnswer WebClient::Exchange() {
  WebAnswer answer;
  curl_easy_setopt(handle_.get(), CURLOPT_WRITEDATA, &answer.text);
  if (curl_easy_perform(handle_.get()) == CURLE_OK) {
    long status = 0;
    curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &status);
    answer.status = static_cast<int>(status);
    answer.certificate = FirstCertificate(handle_.get());
    Json::Reader().parse(answer.text, answer.envelope);
  }
  return answer;
}

WebAnswer WebClient::Get() {
  curl_easy_setopt(handle_.get(), CURLOPT_HTTPGET, 1L);
  return Exchange();
}

WebAnswer WebClient::Post(const WebCall& call) {
  curl_slist* headers = nullptr;
  for (const std::string& header : call.headers) {
    headers = curl_slist_append(headers, header.c_str());
  }
  curl_easy_setopt(handle_.get(), CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(handle_.get(), CURLOPT_POSTFIELDSIZE_LARGE,
                   static_cast<curl_off_t>(call.text.size()));
  curl_easy_setopt(handle_.get(), CURLOPT_POSTFIELDS, call.text.data());
  WebAnswer answer = Exchange();
  curl_slist_free_all(headers);
  return answer;
}

WebAnswer WebClient::Call(const std::string& token, const std::string& text) {
  return Post({text, {"Content-Type: application/json", "Authorization: Bearer " + token}});
}

WebAnswer WebClient::Login(const std::string& account, const std::string& password,
                           std::string* finish, const Json::Value& lifetime) {
  ScramClient client(account, password);
  Json::Value request;
  request["api"] = "VELA.Core.Login";
  request["version"] = 1;
  request["method"] = "start";
  request["params"]["message"] = client.Step("");
  const WebAnswer first = Post({Json::FastWriter().write(request)});
  if (first.status != 200) {
    return first;
  }
  request["method"] = "finish";
  request["params"]["login"] = first.envelope["data"]["login"];
  request["params"]["message"] = client.Step(first.envelope["data"]["message"].asString());
  if (!lifetime.isNull()) {
    request["params"]["lifetime"] = lifetime;
  }
  const std::string text = Json::FastWriter().write(request);
  if (finish != nullptr) {
    *finish = text;
  }
  WebAnswer last = Post({text});
  if (last.status == 200) {
    client.Step(last.envelope["data"]["message"].asString());
    if (client.result() != GSASL_OK) {
      throw std::runtime_error("the server does not know the account either");
    }
  }
  return last;
}

WebServer::WebServer(const std::string& settings)
    : http_port_(FreePort()), https_port_(FreePort()) {
  folder_.Write("passwd", "alice:x:1001:100::/nonexistent:/usr/sbin/nologin\n");
  folder_.Write("group", "users:x:100:\n");
  folder_.Write("mailserver.toml",
                fmt::format(R"([accounts]
passwd_file = "{0}/passwd"
group_file = "{0}/group"
privileges_file = "{0}/app-privileges"
[maildir]
root = "{0}/spool"
usage_cache = "{0}/no-owner-usage.db"
[quota]
store = "sqlite://{0}/quota.db"
[log]
target = "file"
file = "{0}/mail.log"
[web]
address = "127.0.0.1"
http_port = {1}
https_port = {2}
state_folder = "{0}/state"
accounts_file = "{0}/accounts"
user = "nobody"
{3}
)",
                            folder_.path().string(), http_port_, https_port_, settings));
  const platform::Secret password{std::string_view(kWebPassword)};
  platform::AddWebAccount(accounts_file(), "boss", platform::WebRole::kAdmin, password);
  platform::AddWebAccount(accounts_file(), "watcher", platform::WebRole::kMonitor, password);
  program_ = std::make_unique<BackgroundProgram>(CommandLine(), folder_ / "output");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (Get("/").status != 200) {
    if (!program_->IsRunning() || std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("quillon-webapid does not start: " + folder_.Read("output"));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::vector<std::string> WebServer::CommandLine() const {
  return {QUILLON_WEBAPID, "--config", configuration_file()};
}

std::string WebServer::Url(bool tls) const {
  return tls ? fmt::format("https://127.0.0.1:{}/webapi", https_port_)
             : fmt::format("http://127.0.0.1:{}/webapi", http_port_);
}

WebAnswer WebServer::Get(const std::string& path) const {
  return WebClient(fmt::format("http://127.0.0.1:{}{}", http_port_, path)).Get();
}

WebAnswer WebServer::Post(const WebCall& call, bool tls) const {
  return WebClient(Url(tls)).Post(call);
}

WebAnswer WebServer::Call(const std::string& token, const std::string& text) const {
  return WebClient(Url(false)).Call(token, text);
}

WebAnswer WebServer::Login(const std::string& account, const std::string& password,
                           std::string* finish, const Json::Value& lifetime) const {
  return WebClient(Url(false)).Login(account, password, finish, lifetime);
}

std::string WebServer::Token(const std::string& account) const {
  return Login(account, kWebPassword).envelope["data"]["token"].asString();
}

int WebServer::Connect(bool tls) const {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = Loopback(tls ? https_port_ : http_port_);
  const timeval patience{10, 0};
  ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::runtime_error("cannot connect");
  }
  return socket;
}

std::string Converse(int socket, const std::string& text) {
  static_cast<void>(::send(socket, text.data(), text.size(), MSG_NOSIGNAL));
  std::string answer;
  std::array<char, 4096> piece{};
  for (ssize_t got = 1; got > 0;) {
    got = ::recv(socket, piece.data(), piece.size(), 0);
    answer.append(piece.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  }
  ::close(socket);
  return answer;
}

void ExpectRefusal(const WebAnswer& answer, int status) {
  EXPECT_EQ(answer.status, status) << answer.text;
  EXPECT_FALSE(answer.envelope["success"].asBool());
  EXPECT_EQ(answer.envelope["error"]["code"], status);
}

std::vector<int> WebServer::Children(const std::string& name) const {
  return ChildrenOf(program_->pid(), name);
}

}  // namespace quillon::test
