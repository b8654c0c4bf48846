#pragma once

namespace quillon::handlers {

void RegisterPrivilegeAPI();

}  // namespace quillon::handlers
