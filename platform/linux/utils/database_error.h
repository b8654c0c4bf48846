#pragma once

#include <string>

#include <soci/soci.h>

namespace quillon::platform {

/// What a database says about a failure, on one line and without the statement and its parameters,
/// which may be megabytes.
std::string MessageOf(const soci::soci_error& error);

}  // namespace quillon::platform
