#include <arpa/inet.h>
#include <netinet/in.h>

#include <quillon/platform/client_network.h>

namespace quillon::platform {

std::string ClientNetwork(const std::string& address) {
  constexpr std::size_t kNetworkBytes = 8;
  in6_addr ip{};
  if (::inet_pton(AF_INET6, address.c_str(), &ip) != 1 || IN6_IS_ADDR_V4MAPPED(&ip)) {
    return address;
  }
  return std::string(reinterpret_cast<const char*>(&ip), kNetworkBytes);
}

}  // namespace quillon::platform
