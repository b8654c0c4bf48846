#pragma once

#include <string>
#include <string_view>

namespace quillon::platform {

/// The 32 bytes of a text's SHA-256.
std::string Sha256(std::string_view text);

/// The 32 bytes of a text's HMAC-SHA-256 with a key.
std::string HmacSha256(std::string_view key, std::string_view text);

}  // namespace quillon::platform
