#pragma once

namespace quillon::webapid {

/// Where a front and a worker find the socket that the supervisor gives them: to the supervisor,
/// and to the front.
inline constexpr int kSupervisorSocket = 3;

/// Where a worker finds the text of the configuration that is in force, which need not be what is
/// in the file by now. It is closed where there is no configuration file.
inline constexpr int kConfigurationText = 4;

}  // namespace quillon::webapid
