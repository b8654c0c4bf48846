#include "quota/quota_dialect.h"

#include <dlfcn.h>

#include <cstring>
#include <filesystem>

#include <fmt/format.h>

#include <velamailserver/log_exception.h>

#include "quota/postgresql_dialect.h"
#include "quota/sqlite_dialect.h"
#include "utils/database_error.h"

namespace quillon::platform {

namespace {

using velamailserver::ERR_BAD_DB_SESSION;
using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/quota/quota_dialect";
constexpr int kNoModuleLine = 31;
constexpr int kUnknownUrlLine = 43;

// By its path, so that no environment variable decides what is loaded.
std::string ModulePath() {
  Dl_info here{};
  ::dladdr(kSourceFile, &here);
  return std::filesystem::canonical(here.dli_fname).replace_filename(kPostgresqlModule);
}

// Never unloaded: objects of its classes may live until the process ends.
MakePostgresqlDialectFunction* LoadPostgresql() {
  void* const module = ::dlopen(ModulePath().c_str(), RTLD_NOW | RTLD_LOCAL);
  void* const function = module == nullptr ? nullptr : ::dlsym(module, "MakePostgresqlDialect");
  if (function == nullptr) {
    throw LogException(
        ERR_BAD_DB_SESSION,
        fmt::format("quota.store is in PostgreSQL, whose module cannot be loaded: {}", ::dlerror()),
        3, kSourceFile, kNoModuleLine);
  }
  return reinterpret_cast<MakePostgresqlDialectFunction*>(function);
}

}  // namespace

std::unique_ptr<QuotaDialect> QuotaDialect::Of(const Configuration::Quota& settings) {
  if (settings.store.starts_with(kPostgresqlScheme)) {
    static MakePostgresqlDialectFunction* const make = LoadPostgresql();
    return std::unique_ptr<QuotaDialect>(make(settings.store, settings.busy_timeout));
  }
  if (const std::string file = settings.SqliteFile(); !file.empty()) {
    return MakeSqliteDialect(file, settings.busy_timeout);
  }
  throw LogException(ERR_BAD_DB_SESSION,
                     "quota.store must be sqlite:///ABSOLUTE/PATH or a postgresql:// URL", 3,
                     kSourceFile, kUnknownUrlLine);
}

std::string QuotaDialect::Explain(const soci::soci_error& error) const {
  if (IsLocked(error)) {
    return fmt::format("another program has locked it for more than {} s", busy_timeout());
  }
  const std::string remedy = Remedy(error);
  return MessageOf(error) + (remedy.empty() ? "" : ": ") + remedy;
}

}  // namespace quillon::platform
