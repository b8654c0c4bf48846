#pragma once

namespace velamailserver::db_query {

/// A row read from, or to be written to, one of the mail server's databases.
class Record {
 public:
  virtual ~Record();

  /// Whether the fields hold what the database promises for this kind of record.
  virtual bool IsValid() const = 0;

 protected:
  Record() = default;
  Record(const Record&) = default;
  Record& operator=(const Record&) = default;
};

}  // namespace velamailserver::db_query
