#include "quota/mail_user_table.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include <fmt/format.h>
#include <json/writer.h>

#include "quota/quota_schema.h"

namespace quillon::platform {

namespace {

// Keeps the text of one statement within bounds.
constexpr std::size_t kMostAtOnce = 10'000;

// The store's mail users, in ascending order of uids.
class StoredMailUsers {
 public:
  explicit StoredMailUsers(soci::session& session)
      : users_((session.prepare << fmt::format("SELECT id, name, gid, home FROM {} ORDER BY id",
                                               kMailUserTable),
                soci::into(uid_), soci::into(user_.name), soci::into(gid_),
                soci::into(user_.home))),
        groups_((session.prepare << fmt::format("SELECT id, gid FROM {} ORDER BY id, gid",
                                                kMailUserGroupTable),
                 soci::into(member_), soci::into(group_))) {
    users_.execute();
    groups_.execute();
    has_group_ = groups_.fetch();
  }

  // The next one; null at the end.
  const MailUser* Next() {
    if (!users_.fetch()) {
      return nullptr;
    }
    user_.uid = static_cast<std::uint32_t>(uid_);
    user_.gid = static_cast<std::uint32_t>(gid_);
    user_.groups.clear();
    for (; has_group_ && member_ <= uid_; has_group_ = groups_.fetch()) {
      if (member_ == uid_) {
        user_.groups.push_back(static_cast<std::uint32_t>(group_));
      }
    }
    return &user_;
  }

 private:
  long long uid_ = 0;
  long long gid_ = 0;
  MailUser user_;
  long long member_ = 0;
  long long group_ = 0;
  bool has_group_ = false;
  soci::statement users_;
  soci::statement groups_;
};

// Does something with at most so many of the items at a time.
template <typename Item, typename Work>
void InParts(const std::vector<Item>& items, const Work& work) {
  for (auto begin = items.begin(); begin != items.end();) {
    const auto left = static_cast<std::size_t>(std::distance(begin, items.end()));
    const auto end = std::next(begin, static_cast<std::ptrdiff_t>(std::min(left, kMostAtOnce)));
    work(begin, end);
    begin = end;
  }
}

void Delete(soci::session& session, const QuotaDialect& dialect,
            const std::vector<std::uint32_t>& uids) {
  InParts(uids, [&](auto begin, auto end) {
    const std::string ids = fmt::format("{}", fmt::join(begin, end, ","));
    for (const char* table : {kMailUserTable, kMailUserGroupTable}) {
      session << fmt::format("DELETE FROM {} WHERE id IN ({})", table, dialect.sql().ids),
          soci::use(ids, "ids");
    }
  });
}

void Insert(soci::session& session, const QuotaDialect& dialect,
            const std::vector<const MailUser*>& users) {
  const std::string add_users = fmt::format(
      "INSERT INTO {} (id, name, gid, home) SELECT CAST(value ->> 0 AS BIGINT), value ->> 1,"
      " CAST(value ->> 2 AS BIGINT), value ->> 3 FROM {}",
      kMailUserTable, dialect.sql().rows);
  const std::string add_groups = fmt::format(
      "INSERT INTO {} (id, gid) SELECT CAST(value ->> 0 AS BIGINT), CAST(value ->> 1 AS BIGINT)"
      " FROM {}",
      kMailUserGroupTable, dialect.sql().rows);
  InParts(users, [&](auto begin, auto end) {
    std::string rows = "[";
    std::string groups = "[";
    for (auto at = begin; at != end; ++at) {
      const MailUser& user = **at;
      fmt::format_to(std::back_inserter(rows), "{}[{},{},{},{}]", at == begin ? "" : ",", user.uid,
                     Json::valueToQuotedString(user.name.c_str()), user.gid,
                     Json::valueToQuotedString(user.home.c_str()));
      for (const std::uint32_t gid : user.groups) {
        fmt::format_to(std::back_inserter(groups), "{}[{},{}]", groups.size() == 1 ? "" : ",",
                       user.uid, gid);
      }
    }
    rows += "]";
    groups += "]";
    session << add_users, soci::use(rows, "rows");
    session << add_groups, soci::use(groups, "rows");
  });
}

}  // namespace

MailUserUpdate::MailUserUpdate(soci::session& session, std::vector<MailUser> wanted)
    : wanted_(std::move(wanted)) {
  auto next = wanted_.begin();
  const auto add_until = [&](auto end) {
    changes_.added += static_cast<std::size_t>(std::distance(next, end));
    for (; next != end; ++next) {
      news_.push_back(&*next);
    }
  };
  StoredMailUsers stored(session);
  while (const MailUser* user = stored.Next()) {
    add_until(std::find_if(next, wanted_.end(),
                           [&](const MailUser& other) { return other.uid >= user->uid; }));
    const bool is_wanted = next != wanted_.end() && next->uid == user->uid;
    if (is_wanted && *next == *user) {
      ++changes_.unchanged;
      ++next;
      continue;
    }
    outdated_.push_back(user->uid);
    if (is_wanted) {
      ++changes_.changed;
      news_.push_back(&*next++);
    } else {
      ++changes_.removed;
    }
  }
  add_until(wanted_.end());
}

void MailUserUpdate::Write(soci::session& session, const QuotaDialect& dialect) const {
  // In this order, because a name may have gone from one user to another.
  Delete(session, dialect, outdated_);
  Insert(session, dialect, news_);
}

}  // namespace quillon::platform
