#include "maildir/usage_cache.h"

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <utility>

#include <fmt/format.h>
#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/file_state.h>
#include <quillon/platform/no_owner_usage.h>
#include <velamailserver/log_exception.h>

#include "utils/closed_before_fork.h"
#include "utils/database_error.h"
#include "utils/database_transaction.h"
#include "utils/decimal.h"
#include "utils/sqlite_file.h"

namespace quillon::platform {

namespace {

using velamailserver::ErrorCode;
using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/maildir/usage_cache";
constexpr int kNewerLine = 58;
constexpr int kFailedLine = 73;

constexpr int kBusyTimeout = 5;  // seconds
constexpr int kSchemaVersion = 1;
constexpr char kBegin[] = "BEGIN IMMEDIATE";

SqliteFile ConfiguredFile() {
  return {CurrentConfiguration()->maildir.usage_cache, "usage cache", "maildir.usage_cache", 0600,
          kBusyTimeout};
}

// What is the matter, and what to do about it.
std::string Explain(const soci::soci_error& error, const SqliteFile& file) {
  const int result = SqliteResult(error);
  const std::string remedy =
      result == SQLITE_NOTADB || result == SQLITE_CORRUPT || result == SQLITE_ERROR
          ? fmt::format("remove it (rm {0} {0}-wal {0}-shm), it is made anew", file.path)
          : SqliteRemedy(error, file);
  return MessageOf(error) + (remedy.empty() ? "" : ": ") + remedy;
}

int ReadVersion(soci::session& session, const SqliteFile& file) {
  int version = 0;
  session << "PRAGMA user_version", soci::into(version);
  if (version < 0 || version > kSchemaVersion) {
    throw LogException(
        velamailserver::ERR_DB_UPGRADE,
        fmt::format("{} [{}]: it has version {}, this program knows versions up to {}: install the "
                    "program that wrote it, or remove the file",
                    file.purpose, file.path, version, kSchemaVersion),
        3, kSourceFile, kNewerLine);
  }
  return version;
}

// Numbers beyond 63 bits are kept as decimal text.
void CreateTables(soci::session& session) {
  session << "CREATE TABLE directory (path TEXT PRIMARY KEY, inode TEXT NOT NULL,"
             " uid INTEGER NOT NULL, bytes TEXT NOT NULL, recount INTEGER NOT NULL) WITHOUT ROWID";
  session << "CREATE TABLE recount (started INTEGER NOT NULL, finished INTEGER NOT NULL)";
  session << "INSERT INTO recount (started, finished) VALUES (0, 0)";
}

// A connection to the cache as it was when it was opened.
class Connection {
 public:
  Connection(const SqliteFile& file, const struct stat& status)
      : path_(file.path),
        device_(status.st_dev),
        inode_(status.st_ino),
        session_(OpenSqliteFile(file)) {
    // What the last moments before a crash wrote may be lost: it is counted again.
    *session_ << "PRAGMA synchronous = NORMAL";
    has_tables_ = ReadVersion(*session_, file) == kSchemaVersion;
  }

  bool IsTo(const SqliteFile& file, const struct stat& status) const {
    return path_ == file.path && device_ == status.st_dev && inode_ == status.st_ino;
  }

  bool has_tables() const { return has_tables_; }
  soci::session& session() { return *session_; }

  void MakeTables(const SqliteFile& file) {
    UseWriteAheadLog(*session_, file);
    DatabaseTransaction transaction(*session_, kBegin);
    if (ReadVersion(*session_, file) == 0) {  // another program may have been faster
      CreateTables(*session_);
      *session_ << "PRAGMA user_version = " << kSchemaVersion;
    }
    transaction.Commit();
    has_tables_ = true;
  }

  std::optional<unsigned long long> Find(const CacheKey& key) {
    if (find_ == nullptr) {
      find_ = std::make_unique<soci::statement>((
          session_->prepare
              << "SELECT bytes FROM directory WHERE path = :path AND inode = :inode AND uid = :uid",
          soci::use(path_key_, "path"), soci::use(inode_key_, "inode"), soci::use(uid_key_, "uid"),
          soci::into(bytes_)));
    }
    path_key_ = key.path;
    inode_key_ = std::to_string(key.inode);
    uid_key_ = key.uid;
    std::optional<unsigned long long> found;
    find_->execute();
    // To its end, which lets go of the state of the database that it reads.
    while (find_->fetch()) {
      found = ParseDecimal<unsigned long long>(bytes_);
    }
    return found;
  }

 private:
  std::string path_;
  dev_t device_;
  ino_t inode_;
  std::unique_ptr<soci::session> session_;
  bool has_tables_ = false;

  std::unique_ptr<soci::statement> find_;
  std::string path_key_;
  std::string inode_key_;
  long long uid_key_ = 0;
  std::string bytes_;
};

// What an operation says about itself when it fails.
struct Task {
  ErrorCode code;
  const char* verb;
};

// The process's connection to the cache, which follows the configuration and the file.
class UsageCache {
 public:
  static UsageCache& Get() {
    static UsageCache cache;
    return cache;
  }

  // Does nothing when there is no cache.
  template <typename Work>
  void UseIfAny(const Task& task, const Work& work) {
    Run(task, [&](const SqliteFile& file) {
      if (Connection* connection = Find(file)) {
        work(*connection);
      }
    });
  }

  // Does its work in one transaction, and makes the cache when there is none.
  template <typename Work>
  void Change(const Task& task, const Work& work) {
    Run(task, [&](const SqliteFile& file) {
      Connection& connection = Make(file);
      DatabaseTransaction transaction(connection.session(), kBegin);
      work(connection.session());
      transaction.Commit();
    });
  }

 private:
  template <typename Work>
  void Run(const Task& task, const Work& work) {
    const SqliteFile file = ConfiguredFile();
    const std::lock_guard lock(mutex_);
    try {
      work(file);
    } catch (const soci::soci_error& error) {
      connection_.reset();
      throw LogException(task.code,
                         fmt::format("{} [{}]: cannot {} it: {}", file.purpose, file.path,
                                     task.verb, Explain(error, file)),
                         3, kSourceFile, kFailedLine);
    }
  }

  // Null when nothing was ever stored.
  Connection* Find(const SqliteFile& file) {
    const auto status = ExamineSqliteFile(file);
    if (!status) {
      connection_.reset();
      return nullptr;
    }
    Open(file, *status);
    if (!connection_->has_tables()) {
      connection_.reset();  // looked at again at the next call
    }
    return connection_.get();
  }

  Connection& Make(const SqliteFile& file) {
    Open(file, ProvideSqliteFile(file));
    if (!connection_->has_tables()) {
      connection_->MakeTables(file);
    }
    return *connection_;
  }

  void Open(const SqliteFile& file, const struct stat& status) {
    if (connection_ == nullptr || !connection_->IsTo(file, status)) {
      connection_.reset();
      connection_ = std::make_unique<Connection>(file, status);
    }
  }

  ClosedBeforeFork<Connection>& process_ = ClosedBeforeFork<Connection>::Get();
  std::mutex& mutex_ = process_.mutex;
  std::unique_ptr<Connection>& connection_ = process_.connection;
};

// Keeps a scan from trying 100,000 times to read a cache that cannot be read: not again before it
// has changed, or a minute has gone by.
class FailedReads {
 public:
  static FailedReads& Get() {
    static FailedReads reads;
    return reads;
  }

  bool IsKnown(const std::string& path) {
    const std::lock_guard lock(mutex_);
    return Clock::now() < until_ && StateOf(path) == state_;
  }
  void Remember(const std::string& path) {
    const std::lock_guard lock(mutex_);
    state_ = StateOf(path);
    until_ = Clock::now() + std::chrono::minutes(1);
  }

 private:
  using Clock = std::chrono::steady_clock;

  // Of the cache and of its log, in which changes may lie for long.
  using State = std::pair<FileState, FileState>;

  static State StateOf(const std::string& path) {
    struct stat cache {};
    struct stat log {};
    ::lstat(path.c_str(), &cache);
    ::lstat((path + "-wal").c_str(), &log);
    return {FileState(cache), FileState(log)};
  }

  std::mutex mutex_;
  State state_{FileState({}), FileState({})};
  Clock::time_point until_;
};

// Of the recount that this process is at; 0 outside of any.
std::atomic<long long> current_recount = 0;

}  // namespace

std::optional<unsigned long long> FindCachedUsage(const CacheKey& key) {
  const std::string path = CurrentConfiguration()->maildir.usage_cache;
  if (FailedReads::Get().IsKnown(path)) {
    return std::nullopt;
  }
  std::optional<unsigned long long> bytes;
  try {
    UsageCache::Get().UseIfAny({velamailserver::ERR_DB_SELECT, "read"},
                               [&](Connection& connection) { bytes = connection.Find(key); });
  } catch (const LogException&) {
    FailedReads::Get().Remember(path);
  }
  return bytes;
}

void StoreCachedUsage(const CacheKey& key, unsigned long long bytes) {
  const std::string inode = std::to_string(key.inode);
  const long long uid = key.uid;
  const std::string bytes_text = std::to_string(bytes);
  const long long recount = current_recount;
  UsageCache::Get().Change(
      {velamailserver::ERR_DB_REPLACE, "write to"}, [&](soci::session& session) {
        session << "INSERT OR REPLACE INTO directory (path, inode, uid, bytes, recount)"
                   " VALUES (:path, :inode, :uid, :bytes, :recount)",
            soci::use(key.path, "path"), soci::use(inode, "inode"), soci::use(uid, "uid"),
            soci::use(bytes_text, "bytes"), soci::use(recount, "recount");
      });
}

void DropCachedUsage(const std::string& path) {
  UsageCache::Get().UseIfAny(
      {velamailserver::ERR_DB_DELETE, "write to"}, [&](Connection& connection) {
        connection.session() << "DELETE FROM directory WHERE path = :path", soci::use(path, "path");
      });
}

std::uint64_t NoOwnerUsageGeneration() {
  long long finished = 0;
  UsageCache::Get().UseIfAny({velamailserver::ERR_DB_SELECT, "read"}, [&](Connection& connection) {
    connection.session() << "SELECT finished FROM recount", soci::into(finished);
  });
  return static_cast<std::uint64_t>(finished);
}

void BeginRecount() {
  long long started = 0;
  UsageCache::Get().Change({velamailserver::ERR_DB_UPDATE, "write to"},
                           [&](soci::session& session) {
                             session << "UPDATE recount SET started = started + 1";
                             session << "SELECT started FROM recount", soci::into(started);
                           });
  current_recount = started;
}

std::vector<CacheKey> ListOldUsage() {
  std::vector<CacheKey> directories;
  UsageCache::Get().UseIfAny({velamailserver::ERR_DB_SELECT, "read"}, [&](Connection& connection) {
    const long long recount = current_recount;
    std::string path;
    std::string inode;
    long long uid = 0;
    soci::statement select =
        (connection.session().prepare
             << "SELECT path, inode, uid FROM directory WHERE recount <> :recount",
         soci::use(recount, "recount"), soci::into(path), soci::into(inode), soci::into(uid));
    select.execute();
    while (select.fetch()) {
      directories.push_back(
          {path, ParseDecimal<std::uint64_t>(inode).value_or(0), static_cast<std::uint32_t>(uid)});
    }
  });
  return directories;
}

void FinishRecount(const std::vector<CacheKey>& gone) {
  UsageCache::Get().Change(
      {velamailserver::ERR_DB_UPDATE, "write to"}, [&](soci::session& session) {
        for (const CacheKey& key : gone) {
          const std::string inode = std::to_string(key.inode);
          session << "DELETE FROM directory WHERE path = :path AND inode = :inode",
              soci::use(key.path, "path"), soci::use(inode, "inode");
        }
        session << "UPDATE recount SET finished = finished + 1";
      });
  current_recount = 0;
}

}  // namespace quillon::platform
