#pragma once

#include <cstddef>
#include <string>

namespace quillon::platform {

/// Bytes that nobody can guess, from the kernel. Throws `std::system_error`.
std::string RandomBytes(std::size_t count);

}  // namespace quillon::platform
