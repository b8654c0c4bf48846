#pragma once

namespace quillon::webapid {

/// Where a front and a worker find the socket that the supervisor gives them: to the supervisor,
/// and to the front.
inline constexpr int kSupervisorSocket = 3;

}  // namespace quillon::webapid
