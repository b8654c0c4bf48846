#pragma once

#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>

#include <soci/soci.h>

namespace quillon::platform {

/// A SQLite database in a file of the host's.
struct SqliteFile {
  std::string path;
  const char* purpose;  ///< what it is, in messages
  const char* setting;  ///< the key of the configuration that says where it is
  mode_t mode;          ///< of the file when it is created
  int busy_timeout;     ///< seconds
};

/// What the file is; nothing when there is none, and all zeros when it cannot be examined, which is
/// left to SQLite to refuse. Throws `LogException` with `ERR_BAD_DB_SESSION` for a path that cannot
/// be used or is not that of a regular file: a link could make root write elsewhere.
std::optional<struct stat> ExamineSqliteFile(const SqliteFile& file);

/// The same, but creates the file when there is none. Throws `LogException` with `ERR_DB_CREATE`
/// when it cannot be created.
struct stat ProvideSqliteFile(const SqliteFile& file);

/// Opens a file that was examined. Throws `soci::soci_error`.
std::unique_ptr<soci::session> OpenSqliteFile(const SqliteFile& file);

/// Has the database, which keeps to it for good, write to a log first. Throws `soci::soci_error`.
void UseWriteAheadLog(soci::session& session, const SqliteFile& file);

/// SQLite's own number of an error, SQLITE_OK for one that is not SQLite's.
int SqliteResult(const soci::soci_error& error);

/// What to do about an error when its message does not say it; else empty.
std::string SqliteRemedy(const soci::soci_error& error, const SqliteFile& file);

}  // namespace quillon::platform
