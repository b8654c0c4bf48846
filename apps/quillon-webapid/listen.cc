#include "listen.h"

#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace quillon::webapid {

namespace {

struct FreeAddresses {
  void operator()(addrinfo* addresses) const { ::freeaddrinfo(addresses); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

Addresses Resolve(const std::string& address, int port) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int error = ::getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (error != 0) {
    throw std::runtime_error("web.address " + address + ": " + ::gai_strerror(error));
  }
  return Addresses(found);
}

}  // namespace

platform::FileDescriptor Listen(const std::string& address, int port) {
  const std::string place =
      (address.empty() ? "all addresses" : address) + " port " + std::to_string(port);
  // "::" takes IPv4 as well; a host without IPv6 has only the other.
  for (const char* any : {"::", "0.0.0.0"}) {
    const Addresses found = Resolve(address.empty() ? any : address, port);
    platform::FileDescriptor listener(
        ::socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!listener.IsOpen() && errno == EAFNOSUPPORT && address.empty()) {
      continue;
    }
    constexpr int kOn = 1;
    constexpr int kOff = 0;
    ::setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &kOn, sizeof(kOn));
    if (found->ai_family == AF_INET6) {
      ::setsockopt(listener.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &kOff, sizeof(kOff));
    }
    if (::bind(listener.Get(), found->ai_addr, found->ai_addrlen) != 0 ||
        ::listen(listener.Get(), SOMAXCONN) != 0) {
      throw std::system_error(errno, std::generic_category(), place);
    }
    return listener;
  }
  throw std::runtime_error(place + ": this host has no internet protocol");
}

}  // namespace quillon::webapid
