#pragma once

#include <cstdint>
#include <string>

namespace quillon::platform {

// What belongs to nobody may be deleted. So a uid is nobody's only when the users file and the
// host's own, read without an error and without a line that does not parse, do not have it, and
// each of the host's name services answered that there is none. Whatever cannot be found out counts
// as a user, and is logged. Safe for use from several threads.

/// Asks quickly: the files are those that were read last, unless they look changed.
bool IsNobody(std::uint32_t uid);

/// Asks past everything that remembers an earlier answer: the files are read anew.
bool IsNobodyAskedAfresh(std::uint32_t uid);

/// Whether the uid is that of the account, by the users file read anew and, for a uid that it does
/// not have, by the name service.
bool IsAccountAskedAfresh(std::uint32_t uid, const std::string& account);

}  // namespace quillon::platform
