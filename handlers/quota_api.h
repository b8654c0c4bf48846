#pragma once

namespace quillon::handlers {

void RegisterQuotaAPI();

}  // namespace quillon::handlers
