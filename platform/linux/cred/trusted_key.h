#pragma once

#include <optional>
#include <string>

#include "cred/curl_handle.h"
#include "cred/endpoint.h"

namespace quillon::platform {

/// The fingerprint of the key that a host must have, if that is known. For plain HTTP, on whatever
/// port: whoever answers there must not get what is meant for the host with the key. Throws
/// `HostTrustError`.
std::optional<std::string> TrustedKeyOf(const Endpoint& endpoint);

/// The fingerprint of the key that a host has shown to a handle with `CURLOPT_CERTINFO`, whether or
/// not it was accepted. Throws `HostTrustError`.
std::string ShownKey(const CurlHandle& handle);

}  // namespace quillon::platform
