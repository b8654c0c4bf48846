#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <soci/soci.h>

#include <quillon/platform/mail_users.h>
#include <quillon/platform/store_check.h>

#include "quota/mail_user_table.h"
#include "quota/quota_dialect.h"
#include "quota/quota_schema.h"

namespace quillon::platform {

/// The quota store that the configuration names, opened at the first operation. The tables are
/// those of quota_schema.h. Every operation may throw `LogException`.
class QuotaDatabase {
 public:
  struct Subject {
    std::uint32_t id;
    std::string name;
  };

  QuotaDatabase();
  QuotaDatabase(const QuotaDatabase&) = delete;
  QuotaDatabase& operator=(const QuotaDatabase&) = delete;
  ~QuotaDatabase();

  /// Stores `bytes` for all of the subjects or for none.
  void Set(const char* table, std::vector<Subject> subjects, unsigned long long bytes);
  /// Removes the values of all of the ids or of none.
  void Clear(const char* table, std::vector<std::uint32_t> ids);
  /// The valid records of the ids, in ascending order. `Record` is `UserRecord` or `GroupRecord`.
  template <typename Record>
  std::vector<Record> List(const char* table, std::vector<std::uint32_t> ids);

  /// Makes the store's mail users those that `list` answers, or, in a dry run, says what would
  /// change. Other writers wait meanwhile, so that of two at once the later list is what remains.
  MailUserChanges UpdateMailUsers(const std::function<std::vector<MailUser>()>& list,
                                  bool is_dry_run);
  /// In ascending order of uids, with their effective limits.
  std::vector<StoredMailUser> ListMailUsers();

  /// Writes what is there once more.
  void RequireWritable();

 private:
  struct Task;
  class Selection;

  void Open();
  template <typename Work>
  auto Run(const Task& task, const Work& work);
  std::unique_ptr<Selection> TakeSelection(const char* table, bool is_dense);
  template <typename Record>
  std::vector<Record> Fetch(const char* table, const std::vector<std::uint32_t>& ids);

  std::unique_ptr<QuotaDialect> dialect_;
  std::unique_ptr<soci::session> session_;  // null until opened, and after a failed opening
  // Of the session's, by table and by whether the ids are dense: those that are not in use.
  std::map<std::pair<const char*, bool>, std::unique_ptr<Selection>> selections_;
};

}  // namespace quillon::platform
