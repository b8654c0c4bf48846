#pragma once

#include <cstdint>

namespace quillon::platform {

/// Whether each of the services that the host's name service switch lists for users, asked by
/// itself, answers that it has no user with this uid; "files", which is no service of its own, is
/// left out. NSS as a whole says less: what one service cannot tell is lost when another one after
/// it knows of no such user, a stale database may stand before what it was made from, and nscd,
/// which may answer in place of all of them, remembers that there was no such user and takes a
/// failure for that, too. Throws `std::runtime_error` naming a service that cannot tell. Safe for
/// use from several threads.
bool IsUnknownToNameServices(std::uint32_t uid);

}  // namespace quillon::platform
