#pragma once

#include <sys/types.h>

namespace quillon::webapid {

/// Gives up for good all that this process may do as root: it has that user's and that group's ids,
/// no other groups, no capabilities, leaves no core dump and starts no process. Throws
/// `std::exception`.
void DropRights(uid_t uid, gid_t gid);

/// False in a build with sanitizers, whose run-time library needs more than a filter could allow.
extern const bool kCanFilterSystemCalls;

/// From now on this process has the system calls only that a server needs which has its sockets and
/// its files already. All others fail with EPERM, and are recorded where the kernel records such
/// things: opening a file, starting a program or a process, internet sockets, and memory that is
/// executed. False, with a line in the log, where the kernel has no such filters, or where
/// `kCanFilterSystemCalls` says no. Throws `std::system_error`.
bool FilterSystemCalls();

}  // namespace quillon::webapid
