#pragma once

#include <netinet/in.h>

namespace quillon::test {

/// A port of 127.0.0.1, in TCP.
sockaddr_in Loopback(int port);

/// A port of 127.0.0.1 that nobody listens on. Throws `std::system_error`.
int FreePort();

}  // namespace quillon::test
