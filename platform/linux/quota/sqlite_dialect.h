#pragma once

#include <memory>
#include <string>

#include "quota/quota_dialect.h"

namespace quillon::platform {

/// The dialect of a store in an SQLite file. `busy_timeout` is in seconds.
std::unique_ptr<QuotaDialect> MakeSqliteDialect(const std::string& path, int busy_timeout);

}  // namespace quillon::platform
