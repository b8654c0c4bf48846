#pragma once

namespace quillon::handlers {

void RegisterUsageAPI();

}  // namespace quillon::handlers
