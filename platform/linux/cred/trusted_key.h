#pragma once

#include <optional>
#include <string>

#include "cred/endpoint.h"

namespace quillon::platform {

/// The fingerprint of the key that a host must have, if that is known. Throws `HostTrustError`.
std::optional<std::string> TrustedKeyOf(const Endpoint& endpoint);

}  // namespace quillon::platform
