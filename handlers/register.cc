#include <quillon/handlers/register.h>

#include "usage_api.h"
#include "user_api.h"

namespace quillon::handlers {

void RegisterAll() {
  RegisterUserAPI();
  RegisterUsageAPI();
}

}  // namespace quillon::handlers
