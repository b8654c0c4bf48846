#pragma once

#include "frame.h"

namespace quillon::webapid {

/// Whether somebody in that role may call that method; "monitor" may read figures and lists.
bool MayCall(Role role, const std::string& api, const std::string& method);

/// Runs the call that a request asks for. Never throws for what is in the request.
Frame Answer(const Frame& request);

/// Answers the requests that arrive at a socket, one after the other, until the other side has
/// closed it, or until this process has become too large. `between` is called before each request
/// and about every second while there is none, and is told whether the descriptor `signals` can be
/// read; -1 for none. Throws `std::system_error` and `FrameError`.
void Serve(int socket, int signals, void (*between)(bool has_signal));

}  // namespace quillon::webapid
