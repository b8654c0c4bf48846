#include <quillon/handlers/register.h>

#include "no_owner_api.h"
#include "quota_api.h"
#include "usage_api.h"
#include "user_api.h"

namespace quillon::handlers {

void RegisterAll() {
  RegisterUserAPI();
  RegisterUsageAPI();
  RegisterNoOwnerAPI();
  RegisterQuotaAPI();
}

}  // namespace quillon::handlers
