#pragma once

namespace quillon::handlers {

void RegisterUserAPI();

}  // namespace quillon::handlers
