#pragma once

#include <string>
#include <string_view>

namespace quillon::platform {

/// `text` on one line and harmless to a terminal: control characters, the C1 ones in UTF-8
/// included, and the backslash are written as escapes (`\n`, `\t`, `\x1b`, `\\`); everything else
/// stays as it is.
std::string Printable(std::string_view text);

}  // namespace quillon::platform
