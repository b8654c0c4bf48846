#include <velamailserver/account/quota_record.h>

#include "utils/decimal.h"

namespace velamailserver {

db_query::Record::~Record() = default;

namespace account {

UGRecord::~UGRecord() = default;
UserRecord::~UserRecord() = default;
GroupRecord::~GroupRecord() = default;

bool UGRecord::IsValid() const {
  return quillon::platform::ParseDecimal<unsigned long long>(value).has_value();
}

}  // namespace account

}  // namespace velamailserver

namespace veladbquery {

Insertable::~Insertable() = default;
Updatable::~Updatable() = default;

}  // namespace veladbquery
