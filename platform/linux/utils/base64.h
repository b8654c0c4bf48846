#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quillon::platform {

std::string EncodeBase64(std::string_view bytes);
/// The form for URLs and headers: '-' and '_' in place of '+' and '/', no padding.
std::string EncodeBase64Url(std::string_view bytes);

/// Nothing for a text that is not exactly what `EncodeBase64` makes of some bytes.
std::optional<std::string> DecodeBase64(std::string_view text);

}  // namespace quillon::platform
