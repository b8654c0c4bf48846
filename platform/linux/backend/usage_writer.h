#pragma once

#include <vector>

#include <quillon/platform/usage_count.h>

namespace quillon::backend {

/// Writes the figures into the usage store, each in place of an earlier one. No figures need no
/// server. Throws `LogException`, naming the server, when it is down, slow or refuses; some of the
/// figures may have been written then.
void StoreUsage(const std::vector<platform::CountedUsage>& figures);

}  // namespace quillon::backend
