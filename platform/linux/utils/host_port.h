#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "utils/decimal.h"

namespace quillon::platform {

/// Where a server listens.
struct HostPort {
  std::string host;  ///< name or address, without brackets
  int port = 0;

  /// HOST:PORT, with an IPv6 address in brackets.
  std::string Text() const {
    const bool is_ipv6 = host.find(':') != std::string::npos;
    return fmt::format("{}:{}", is_ipv6 ? "[" + host + "]" : host, port);
  }
};

/// Nothing for a text that is no decimal number from 1 to 65535.
inline std::optional<int> ParsePort(std::string_view text) {
  const auto port = ParseDecimal<int>(text);
  return port && *port >= 1 && *port <= 65535 ? port : std::nullopt;
}

/// Nothing for a text that is not HOST:PORT or [IPV6-ADDRESS]:PORT.
inline std::optional<HostPort> ParseHostPort(std::string_view text) {
  const auto colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    return std::nullopt;
  }
  const auto port = ParsePort(text.substr(colon + 1));
  std::string_view host = text.substr(0, colon);
  const bool has_brackets = host.starts_with('[') && host.ends_with(']');
  if (has_brackets) {
    host = host.substr(1, host.size() - 2);
  }
  const bool has_colon = host.find(':') != std::string_view::npos;
  if (!port || host.empty() || has_colon != has_brackets) {
    return std::nullopt;
  }
  return HostPort{std::string(host), *port};
}

}  // namespace quillon::platform
