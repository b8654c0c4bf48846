#include <quillon/platform/store_check.h>

#include "quota/quota_database.h"

namespace quillon::platform {

void CheckQuotaStore() { QuotaDatabase().RequireWritable(); }

std::vector<StoredMailUser> StoredMailUsers() { return QuotaDatabase().ListMailUsers(); }

}  // namespace quillon::platform
