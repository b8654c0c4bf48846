#include <quillon/handlers/register.h>

#include "group_api.h"
#include "no_owner_api.h"
#include "privilege_api.h"
#include "quota_api.h"
#include "usage_api.h"
#include "user_api.h"

namespace quillon::handlers {

void RegisterAll() {
  RegisterUserAPI();
  RegisterGroupAPI();
  RegisterPrivilegeAPI();
  RegisterUsageAPI();
  RegisterNoOwnerAPI();
  RegisterQuotaAPI();
}

}  // namespace quillon::handlers
