#pragma once

#include <optional>
#include <string>

namespace quillon::platform {

/// A web server that a URL names.
struct Endpoint {
  std::string protocol;  ///< "http" or "https"
  std::string host;      ///< in lower case; an IPv6 address in brackets
  int port = 0;

  /// HOST:PORT.
  std::string Name() const;
};

/// Nothing for a URL that is not http:// or https:// with a host. One with a user name in front of
/// the host is none either: it could pass for another host.
std::optional<Endpoint> EndpointOf(const std::string& url);

/// Nothing for what makes no URL.
std::optional<Endpoint> MakeEndpoint(const std::string& protocol, const std::string& host,
                                     long port);

}  // namespace quillon::platform
