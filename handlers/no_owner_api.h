#pragma once

namespace quillon::handlers {

void RegisterNoOwnerAPI();

}  // namespace quillon::handlers
