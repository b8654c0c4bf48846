#pragma once

#include <string>

#include "quota/quota_dialect.h"

namespace quillon::platform {

inline constexpr char kPostgresqlScheme[] = "postgresql://";

/// File name of the module that knows PostgreSQL. It lies beside the platform's library and is
/// loaded only where the configuration asks for it: its client library takes longer to load, with
/// the two dozen libraries behind it, than most commands take to run.
inline constexpr char kPostgresqlModule[] = "libquillon-quota-postgresql.so";

/// The module's only function, by its symbol "MakePostgresqlDialect": the dialect of the store at a
/// URL, which the caller owns. `busy_timeout` is in seconds. Throws `LogException` with
/// `ERR_BAD_DB_SESSION` for a URL that cannot be understood.
using MakePostgresqlDialectFunction = QuotaDialect*(const std::string& url, int busy_timeout);

}  // namespace quillon::platform

// The module's definition is held against this; nobody else refers to it by name.
extern "C" quillon::platform::MakePostgresqlDialectFunction MakePostgresqlDialect;
