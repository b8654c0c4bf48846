#pragma once

#include <string>

namespace quillon::platform {

/// Whom a numeric address counts for: an IPv4 address for itself; of an IPv6 address the network of
/// 64 bits, which is what one customer has.
std::string ClientNetwork(const std::string& address);

}  // namespace quillon::platform
