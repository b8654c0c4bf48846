#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quillon::platform {

// The services that the host's name service switch lists, each asked by itself; "files", which is
// no service of its own, is left out. All of these throw `std::runtime_error` naming a service that
// cannot tell. Safe for use from several threads.

/// Whether each of the services for users answers that it has no user with this uid. NSS as a whole
/// says less: what one service cannot tell is lost when another one after it knows of no such user,
/// a stale database may stand before what it was made from, and nscd, which may answer in place of
/// all of them, remembers that there was no such user and takes a failure for that, too.
bool IsUnknownToNameServices(std::uint32_t uid);

/// The gids of the groups in whose lists of members a service has the user, in no order, repeated
/// ones included. The services are those for "initgroups", if the switch has a line for that, else
/// those for groups. NSS as a whole takes a service that has failed for one without such groups.
/// One that cannot say which groups a user is in has its groups walked through, at most every 50
/// ms.
std::vector<std::uint32_t> ListGidsOfNameServices(const std::string& user);

}  // namespace quillon::platform
