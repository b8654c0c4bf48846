#pragma once

#include <cstdint>
#include <string>

#include <veladbquery/row.h>
#include <velamailserver/db_query/record.h>

namespace velamailserver::account {

/// One value of the quota store: a limit or a warning level of a user or of a group. A plain value;
/// its virtual operations belong to the implementation of the store.
class UGRecord : public db_query::Record,
                 public veladbquery::Insertable,
                 public veladbquery::Updatable {
 public:
  UGRecord() = default;
  UGRecord(const UGRecord&) = default;
  UGRecord& operator=(const UGRecord&) = default;
  ~UGRecord() override;

  /// Whether `value` is a decimal number of at most 64 bits, without sign or blanks.
  bool IsValid() const override;

  std::uint32_t id = 0;  ///< uid or gid
  std::string text;      ///< the store's own; it need not fill it in, and readers ignore it
  std::string value;     ///< bytes, as decimal text
};

/// A limit or a warning level of a user.
class UserRecord : public UGRecord {
 public:
  UserRecord() = default;
  UserRecord(const UserRecord&) = default;
  UserRecord& operator=(const UserRecord&) = default;
  ~UserRecord() override;
};

/// A limit or a warning level of a group.
class GroupRecord : public UGRecord {
 public:
  GroupRecord() = default;
  GroupRecord(const GroupRecord&) = default;
  GroupRecord& operator=(const GroupRecord&) = default;
  ~GroupRecord() override;
};

}  // namespace velamailserver::account
