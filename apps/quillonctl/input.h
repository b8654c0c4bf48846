#pragma once

#include <string>

/// All of a file, or of standard input for "-". Throws `std::system_error` when it cannot be read,
/// and when it has more than 64 MiB.
std::string ReadInput(const std::string& path);
