#pragma once

namespace quillon::handlers {

void RegisterGroupAPI();

}  // namespace quillon::handlers
