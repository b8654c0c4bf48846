#include "support/redis_relay.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <system_error>
#include <utility>

namespace quillon::test {

namespace {

int Socket() { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); }

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

/// Nothing when the peer has left.
std::optional<std::string> Read(int peer) {
  std::array<char, 65536> piece{};
  const ssize_t got = ::read(peer, piece.data(), piece.size());
  return got > 0 ? std::optional(std::string(piece.data(), static_cast<std::size_t>(got)))
                 : std::nullopt;
}

bool Write(int peer, const std::optional<std::string>& piece) {
  return piece && ::send(peer, piece->data(), piece->size(), MSG_NOSIGNAL) ==
                      static_cast<ssize_t>(piece->size());
}

}  // namespace

RedisRelay::RedisRelay(std::string server, Act act)
    : server_(std::move(server)), act_(std::move(act)), listener_(Socket()) {
  const sockaddr_un address = AddressOf(socket());
  if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listener_, 8) != 0) {
    throw std::system_error(errno, std::generic_category(), "relay of Redis");
  }
  thread_ = std::thread([this] {
    while ((client_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
      Serve(client_);
      ::close(client_.exchange(-1));
    }
  });
}

RedisRelay::~RedisRelay() {
  ::shutdown(listener_, SHUT_RDWR);
  ::shutdown(client_, SHUT_RDWR);
  thread_.join();
  ::close(listener_);
}

void RedisRelay::Serve(int client) const {
  const int server = Socket();
  const sockaddr_un address = AddressOf(server_);
  bool goes_on =
      ::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  while (goes_on) {
    std::array<pollfd, 2> peers = {pollfd{client, POLLIN, 0}, pollfd{server, POLLIN, 0}};
    ::poll(peers.data(), peers.size(), -1);
    if (peers[0].revents != 0) {
      auto piece = Read(client);
      if (piece) {
        act_(*piece);
      }
      goes_on = Write(server, piece);
    } else {
      goes_on = Write(client, Read(server));
    }
  }
  ::close(server);
}

bool HasCommand(const std::string& piece, const std::string& name) {
  return piece.find("\r\n" + name + "\r\n") != std::string::npos;
}

}  // namespace quillon::test
