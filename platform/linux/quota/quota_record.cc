#include <charconv>
#include <system_error>

#include <velamailserver/account/quota_record.h>

namespace velamailserver {

db_query::Record::~Record() = default;

namespace account {

UGRecord::~UGRecord() = default;
UserRecord::~UserRecord() = default;
GroupRecord::~GroupRecord() = default;

bool UGRecord::IsValid() const {
  unsigned long long bytes = 0;
  const char* const end = value.data() + value.size();
  const auto [rest, error] = std::from_chars(value.data(), end, bytes);
  return error == std::errc() && rest == end;
}

}  // namespace account

}  // namespace velamailserver

namespace veladbquery {

Insertable::~Insertable() = default;
Updatable::~Updatable() = default;

}  // namespace veladbquery
