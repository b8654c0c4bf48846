#pragma once

#include <optional>
#include <string_view>

#include <quillon/platform/secret.h>

namespace quillon::platform {

/// Says of a password that `SaltedPassword` makes nothing of what it should be.
inline constexpr char kPasswordText[] =
    "must be UTF-8 without control characters and without characters younger than Unicode 3.2, "
    "such as emoji";

/// What a login by SCRAM-SHA-256 makes of a password (RFC 5802, RFC 4013): 32 bytes. A letter with
/// an accent may be written in either form.
std::optional<Secret> SaltedPassword(const Secret& password, std::string_view salt,
                                     unsigned iterations);

}  // namespace quillon::platform
