#pragma once

#include <string_view>

namespace quillon::platform {

/// Why a JSON document from elsewhere is not to be parsed; null when nothing speaks against it.
/// Whether it is well-formed is for the parser to find out.
const char* ObjectToShape(std::string_view json);

}  // namespace quillon::platform
