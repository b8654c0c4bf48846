#pragma once

#include <string>

#include <quillon/platform/file_descriptor.h>

namespace quillon::webapid {

/// A socket that listens on a numeric address, or on all when it is empty. Throws
/// `std::runtime_error`.
platform::FileDescriptor Listen(const std::string& address, int port);

}  // namespace quillon::webapid
