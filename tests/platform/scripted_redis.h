#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <system_error>
#include <thread>

#include <gtest/gtest.h>

#include <velamailserver/log_exception.h>

#include "support/loopback.h"

namespace quillon::backend {

/// The text of the one exception that `work` must end with.
inline std::string Failure(const std::function<void()>& work) {
  try {
    work();
  } catch (const velamailserver::LogException& error) {
    EXPECT_EQ(error.code(), velamailserver::ERR_BAD_DB_SESSION);
    return error.what();
  }
  ADD_FAILURE() << "nothing was thrown";
  return "";
}

/// A server that accepts connections, one after the other, and does with each of them what the test
/// says.
class ScriptedRedis {
 public:
  using Script = std::function<void(int)>;

  /// On a unix socket.
  ScriptedRedis(const std::string& path, const Script& script)
      : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    Listen(reinterpret_cast<sockaddr*>(&address), sizeof(address), script);
  }

  /// On a port of 127.0.0.1.
  ScriptedRedis(int port, const Script& script)
      : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address = test::Loopback(port);
    Listen(reinterpret_cast<sockaddr*>(&address), sizeof(address), script);
  }

  ScriptedRedis(const ScriptedRedis&) = delete;
  ScriptedRedis& operator=(const ScriptedRedis&) = delete;
  ~ScriptedRedis() {
    ::shutdown(listener_, SHUT_RDWR);
    ::shutdown(peer_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
  }

 private:
  void Listen(const sockaddr* address, socklen_t length, const Script& script) {
    if (::bind(listener_, address, length) != 0 || ::listen(listener_, 8) != 0) {
      throw std::system_error(errno, std::generic_category(), "scripted Redis");
    }
    thread_ = std::thread([this, script] {
      while ((peer_ = ::accept(listener_, nullptr, nullptr)) >= 0) {
        script(peer_);
        ::close(peer_.exchange(-1));
      }
    });
  }

  int listener_;
  std::atomic<int> peer_ = -1;
  std::thread thread_;
};

inline bool Write(int peer, const std::string& text) {
  return ::send(peer, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

inline std::string ReadSomething(int peer) {
  std::array<char, 65536> request{};
  const ssize_t got = ::read(peer, request.data(), request.size());
  return std::string(request.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
}

/// Answers the first request with `answer` and waits for the client to leave.
inline std::function<void(int)> Answering(const std::string& answer) {
  return [answer](int peer) {
    ReadSomething(peer);
    Write(peer, answer);
    ReadSomething(peer);
  };
}

}  // namespace quillon::backend
