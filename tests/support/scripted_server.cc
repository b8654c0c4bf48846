#include "support/scripted_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace quillon::test {

namespace {

void Check(bool is_ok) {
  if (!is_ok) {
    throw std::system_error(errno, std::generic_category(), "scripted server");
  }
}

std::size_t BodyLength(const std::string& head) {
  constexpr std::string_view kName = "\r\nContent-Length: ";
  const auto at = head.find(kName);
  return at == std::string::npos ? 0 : std::stoul(head.substr(at + kName.size()));
}

// The client under test is in the same process, and must cope with the signal by itself.
void BlockSigpipe() {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

}  // namespace

bool Conversation::Receive() {
  std::array<char, 65536> chunk{};
  const ssize_t got = tls_ == nullptr
                          ? ::recv(fd_, chunk.data(), chunk.size(), 0)
                          : ::SSL_read(tls_, chunk.data(), static_cast<int>(chunk.size()));
  if (got <= 0) {
    return false;
  }
  received_.append(chunk.data(), static_cast<std::size_t>(got));
  return true;
}

std::optional<ReceivedRequest> Conversation::Next() {
  std::size_t end = 0;
  while ((end = received_.find("\r\n\r\n")) == std::string::npos) {
    if (!Receive()) {
      return std::nullopt;
    }
  }
  ReceivedRequest request{received_.substr(0, end + 4), ""};
  const std::size_t length = BodyLength(request.head);
  while (received_.size() < request.head.size() + length) {
    if (!Receive()) {
      return std::nullopt;
    }
  }
  request.body = received_.substr(request.head.size(), length);
  received_.erase(0, request.head.size() + length);
  return request;
}

bool Conversation::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = tls_ == nullptr
                             ? ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL)
                             : ::SSL_write(tls_, bytes.data(), static_cast<int>(bytes.size()));
    if (sent <= 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool Conversation::Answer(std::string_view body, std::string_view status) {
  return Send(
      fmt::format("HTTP/1.1 {}\r\nContent-Length: {}\r\n\r\n{}", status, body.size(), body));
}

void Conversation::WaitForEnd() {
  while (Receive()) {
    received_.clear();
  }
}

void Conversation::ResetAtEnd() const {
  const linger at_once{1, 0};
  Check(::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once)) == 0);
}

ScriptedServer::ScriptedServer(Script script, const Certificate* certificate, const TlsSetup& setup)
    : script_(std::move(script)), listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  Check(listener_ >= 0);
  if (certificate != nullptr) {
    tls_.reset(::SSL_CTX_new(::TLS_server_method()));
    Check(tls_ != nullptr);
    ::SSL_CTX_use_certificate(tls_.get(), certificate->certificate.get());
    ::SSL_CTX_use_PrivateKey(tls_.get(), certificate->key.get());
    if (setup) {
      setup(tls_.get());
    }
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  Check(::bind(listener_, generic, size) == 0 && ::listen(listener_, 64) == 0 &&
        ::getsockname(listener_, generic, &size) == 0);
  port_ = ::ntohs(address.sin_port);
  accepting_ = std::thread([this] { Accept(); });
}

ScriptedServer::~ScriptedServer() {
  ::shutdown(listener_, SHUT_RDWR);
  accepting_.join();
  ::close(listener_);
  {
    const std::lock_guard lock(mutex_);
    for (const int fd : open_) {
      ::shutdown(fd, SHUT_RDWR);
    }
  }
  for (std::thread& thread : threads_) {
    thread.join();
  }
}

std::string ScriptedServer::URL() const {
  return fmt::format("{}://127.0.0.1:{}", tls_ == nullptr ? "http" : "https", port_);
}

void ScriptedServer::Accept() {
  BlockSigpipe();
  int fd = -1;
  while ((fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
    ++connections_;
    const std::lock_guard lock(mutex_);
    open_.push_back(fd);
    threads_.emplace_back([this, fd] { Serve(fd); });
  }
}

void ScriptedServer::Serve(int fd) {
  {
    const std::unique_ptr<SSL, decltype(&::SSL_free)> tls(
        tls_ == nullptr ? nullptr : ::SSL_new(tls_.get()), ::SSL_free);
    const bool is_ready =
        tls == nullptr || (::SSL_set_fd(tls.get(), fd) == 1 && ::SSL_accept(tls.get()) == 1);
    if (is_ready) {
      Conversation conversation(fd, tls.get());
      script_(conversation);
    }
  }
  const std::lock_guard lock(mutex_);
  open_.erase(std::find(open_.begin(), open_.end(), fd));
  ::close(fd);
}

ScriptedServer::Script AnswerAlways(std::string body, std::string status) {
  return [body = std::move(body), status = std::move(status)](Conversation& client) {
    while (client.Next() && client.Answer(body, status)) {
    }
  };
}

ScriptedServer::Script SendAndHangUp(std::string bytes) {
  return [bytes = std::move(bytes)](Conversation& client) {
    if (client.Next()) {
      client.Send(bytes);
    }
  };
}

}  // namespace quillon::test
