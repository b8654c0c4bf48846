#include "quota/quota_database.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include <fmt/format.h>
#include <json/writer.h>

#include <velamailserver/account/quota_record.h>
#include <velamailserver/log_exception.h>

#include "utils/database_transaction.h"
#include "utils/excerpt.h"

namespace quillon::platform {

namespace {

using velamailserver::ERR_BAD_DB_SESSION;
using velamailserver::ERR_DB_DELETE;
using velamailserver::ERR_DB_REPLACE;
using velamailserver::ERR_DB_SELECT;
using velamailserver::ErrorCode;
using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/quota/quota_database";
constexpr int kNotOpenedLine = 31;
constexpr int kNotSetLine = 48;
constexpr int kNotClearedLine = 59;
constexpr int kNotListedLine = 72;
constexpr int kInvalidValueLine = 85;
constexpr int kNotUpdatedLine = 98;
constexpr int kUsersNotListedLine = 106;
constexpr int kNotWritableLine = 113;

using Ids = std::vector<std::uint32_t>;

void MakeUnique(Ids& ids) {
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
}

void MakeUnique(std::vector<QuotaDatabase::Subject>& subjects) {
  std::sort(subjects.begin(), subjects.end(),
            [](const auto& left, const auto& right) { return left.id < right.id; });
  subjects.erase(
      std::unique(subjects.begin(), subjects.end(),
                  [](const auto& left, const auto& right) { return left.id == right.id; }),
      subjects.end());
}

// To read the whole range is cheaper than to name every id, when it cannot hold many others.
bool IsDense(const Ids& ids) { return (ids.back() - ids.front()) / 2 < ids.size(); }

// A JSON object of the names by id.
std::string NamesById(const std::vector<QuotaDatabase::Subject>& subjects) {
  std::string names;
  for (const QuotaDatabase::Subject& subject : subjects) {
    fmt::format_to(std::back_inserter(names), "{}\"{}\":{}", names.empty() ? '{' : ',', subject.id,
                   Json::valueToQuotedString(subject.name.c_str()));
  }
  return names + "}";
}

}  // namespace

// What an operation says about itself when it fails.
struct QuotaDatabase::Task {
  ErrorCode code;
  const char* verb;
  const char* table;
  int line;
};

// A statement that reads values, which costs more to prepare than to use.
class QuotaDatabase::Selection {
 public:
  // With dense ids of their range, else of their list.
  Selection(soci::session& session, const QuotaDialect& dialect, const char* table, bool is_dense)
      : is_dense_(is_dense),
        statement_(
            is_dense
                ? (session.prepare << fmt::format(
                       "SELECT id, bytes FROM {} WHERE id BETWEEN :first AND :last ORDER BY id",
                       table),
                   soci::use(first_, "first"), soci::use(last_, "last"), soci::into(id_),
                   soci::into(bytes_, indicator_))
                : (session.prepare << fmt::format(fmt::runtime(dialect.sql().list_listed), table),
                   soci::use(ids_, "ids"), soci::into(id_), soci::into(bytes_, indicator_))) {}
  Selection(const Selection&) = delete;
  Selection& operator=(const Selection&) = delete;

  void Begin(const Ids& ids) {
    first_ = ids.front();
    last_ = ids.back();
    ids_ = is_dense_ ? "" : fmt::format("{}", fmt::join(ids, ","));
    statement_.execute();
  }

  // Goes to the next row, in ascending order of ids. False at the end, which has to be reached: it
  // lets go of the state of the database that is read.
  bool Next() {
    const bool has_row = statement_.fetch();
    if (has_row && indicator_ == soci::i_null) {
      bytes_ = "NULL";
    }
    return has_row;
  }

  long long id() const { return id_; }
  const std::string& bytes() const { return bytes_; }

 private:
  const bool is_dense_;
  long long first_ = 0;
  long long last_ = 0;
  std::string ids_;
  long long id_ = 0;
  std::string bytes_;
  soci::indicator indicator_ = soci::i_ok;
  soci::statement statement_;
};

QuotaDatabase::QuotaDatabase() = default;
QuotaDatabase::~QuotaDatabase() = default;

void QuotaDatabase::Open() {
  if (session_ != nullptr) {
    return;
  }
  dialect_ = QuotaDialect::Of(CurrentConfiguration()->quota);
  try {
    auto session = dialect_->Connect();
    UpgradeQuotaSchema(*session, *dialect_);
    session_ = std::move(session);
  } catch (const soci::soci_error& error) {
    throw LogException(ERR_BAD_DB_SESSION,
                       fmt::format("quota store [{}]: cannot open it: {}", dialect_->store(),
                                   dialect_->Explain(error)),
                       3, kSourceFile, kNotOpenedLine);
  }
}

// A server may have closed the connection since the last operation, or close it during this one.
// Then there is one more try: doing the work twice leaves the same values as doing it once.
template <typename Work>
auto QuotaDatabase::Run(const Task& task, const Work& work) {
  for (bool is_retried = false;; is_retried = true) {
    Open();
    try {
      return work();
    } catch (const soci::soci_error& error) {
      const bool is_lost = !session_->is_connected();
      if (is_lost) {
        selections_.clear();
        session_.reset();
      }
      if (!is_lost || is_retried) {
        throw LogException(task.code,
                           fmt::format("quota store [{}]: cannot {} {}: {}", dialect_->store(),
                                       task.verb, task.table, dialect_->Explain(error)),
                           3, kSourceFile, task.line);
      }
    }
  }
}

void QuotaDatabase::Set(const char* table, std::vector<Subject> subjects,
                        unsigned long long bytes) {
  if (subjects.empty()) {
    return;
  }
  MakeUnique(subjects);
  const std::string names = NamesById(subjects);
  const std::string bytes_text = std::to_string(bytes);
  Run({ERR_DB_REPLACE, "write", table, kNotSetLine}, [&] {
    DatabaseTransaction transaction(*session_, dialect_->sql().begin);
    *session_ << fmt::format(
        "INSERT INTO {} (id, name, bytes) SELECT CAST(key AS BIGINT), value, :bytes FROM {}"
        " WHERE true ON CONFLICT (id) DO UPDATE SET name = excluded.name, bytes = excluded.bytes",
        table, dialect_->sql().named_ids),
        soci::use(bytes_text, "bytes"), soci::use(names, "names");
    transaction.Commit();
  });
}

void QuotaDatabase::Clear(const char* table, Ids ids) {
  if (ids.empty()) {
    return;
  }
  MakeUnique(ids);
  const std::string ids_text = fmt::format("{}", fmt::join(ids, ","));
  Run({ERR_DB_DELETE, "clear", table, kNotClearedLine}, [&] {
    DatabaseTransaction transaction(*session_, dialect_->sql().begin);
    *session_ << fmt::format("DELETE FROM {} WHERE id IN ({})", table, dialect_->sql().ids),
        soci::use(ids_text, "ids");
    transaction.Commit();
  });
}

MailUserChanges QuotaDatabase::UpdateMailUsers(const std::function<std::vector<MailUser>()>& list,
                                               bool is_dry_run) {
  return Run({ERR_DB_REPLACE, "update", kMailUserTable, kNotUpdatedLine}, [&] {
    DatabaseTransaction transaction(*session_, dialect_->sql().begin);
    const MailUserUpdate update(*session_, list());
    if (!is_dry_run && !update.changes().IsNone()) {
      update.Write(*session_, *dialect_);
      transaction.Commit();
    }
    return update.changes();
  });
}

std::vector<StoredMailUser> QuotaDatabase::ListMailUsers() {
  return Run({ERR_DB_SELECT, "list", kMailUserQuotaView, kUsersNotListedLine}, [&] {
    StoredMailUser user{};
    long long uid = 0;
    long long gid = 0;
    soci::statement rows =
        (session_->prepare << fmt::format("SELECT name, uid, gid, home, coalesce(quota_limit, '')"
                                          " FROM {} ORDER BY uid",
                                          kMailUserQuotaView),
         soci::into(user.name), soci::into(uid), soci::into(gid), soci::into(user.home),
         soci::into(user.limit));
    std::vector<StoredMailUser> users;
    rows.execute();
    while (rows.fetch()) {
      user.uid = static_cast<std::uint32_t>(uid);
      user.gid = static_cast<std::uint32_t>(gid);
      users.push_back(user);
    }
    return users;
  });
}

void QuotaDatabase::RequireWritable() {
  Run({ERR_DB_REPLACE, "write", kSchemaTable, kNotWritableLine}, [&] {
    DatabaseTransaction transaction(*session_, dialect_->sql().begin);
    *session_ << fmt::format("UPDATE {0} SET version = version", kSchemaTable);
    transaction.Commit();
  });
}

template <typename Record>
std::vector<Record> QuotaDatabase::List(const char* table, Ids ids) {
  if (ids.empty()) {
    return {};
  }
  MakeUnique(ids);
  return Run({ERR_DB_SELECT, "list", table, kNotListedLine},
             [&] { return Fetch<Record>(table, ids); });
}

std::unique_ptr<QuotaDatabase::Selection> QuotaDatabase::TakeSelection(const char* table,
                                                                       bool is_dense) {
  auto& kept = selections_[{table, is_dense}];
  return kept ? std::move(kept)
              : std::make_unique<Selection>(*session_, *dialect_, table, is_dense);
}

template <typename Record>
std::vector<Record> QuotaDatabase::Fetch(const char* table, const Ids& ids) {
  const bool is_dense = IsDense(ids);
  auto selection = TakeSelection(table, is_dense);
  selection->Begin(ids);
  std::vector<Record> records;
  records.reserve(ids.size());
  Record record;
  auto wanted = ids.begin();
  while (selection->Next()) {
    wanted = std::find_if(wanted, ids.end(),
                          [&](std::uint32_t next) { return next >= selection->id(); });
    if (wanted == ids.end() || *wanted != selection->id()) {
      continue;
    }
    record.id = *wanted;
    record.value = selection->bytes();
    if (!record.IsValid()) {
      throw LogException(
          ERR_DB_SELECT,
          fmt::format("quota store [{}]: the value of id {} in {} is no 64-bit number: [{}]",
                      dialect_->store(), record.id, table, Excerpt(record.value)),
          3, kSourceFile, kInvalidValueLine);
    }
    records.push_back(record);
  }
  // Not one that failed on its way.
  selections_[{table, is_dense}] = std::move(selection);
  return records;
}

template std::vector<velamailserver::account::UserRecord> QuotaDatabase::List(const char*, Ids);
template std::vector<velamailserver::account::GroupRecord> QuotaDatabase::List(const char*, Ids);

}  // namespace quillon::platform
