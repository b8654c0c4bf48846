#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <json/value.h>

#include <velamailserver/log_exception.h>
#include <velamailserver/utils/text.h>

// What the reports of users and of groups have in common.
namespace velamailserver::webapi {

// Keys that a document refers to instead of copying them; it may outlive every use of this library,
// which is linked never to be unloaded.
inline const Json::StaticString kQuota("quota");
inline const Json::StaticString kRemaining("remaining_usage_notification");

/// Throws `LogException` with `ERR_INTERNAL` from the given place when a warning level is larger
/// than its limit, both in bytes.
inline void RequireWarningWithinLimit(unsigned long long limit, unsigned long long warning,
                                      const char* source_file, int line) {
  if (warning > limit) {
    throw LogException(ERR_INTERNAL,
                       "warning byte [" + std::to_string(warning) +
                           "] can't be larger than limit byte [" + std::to_string(limit) + "]",
                       3, source_file, line);
  }
}

/// Records of the quota store by the names, in lower case, of whom they are about.
template <typename Record>
class RecordsByName {
 public:
  /// `name_of` answers the name for a record's id. The first of several records of one name wins.
  template <typename NameOf>
  RecordsByName(std::vector<Record> records, const NameOf& name_of);
  RecordsByName(const RecordsByName&) = delete;  // it points into itself
  RecordsByName& operator=(const RecordsByName&) = delete;

  /// Null when there is none. The quickest to find are those that are asked for in the order of the
  /// records: that is the order of the ids, and so as a rule that of a report's members. A record
  /// after it costs one comparison then, in place of a search of the whole index.
  const Record* Find(const std::string& name);

 private:
  std::vector<Record> records_;
  std::vector<std::string> names_;       // of the records
  std::vector<const Record*> in_order_;  // what each of the names finds
  std::unordered_map<std::string_view, const Record*> index_;
  std::size_t next_ = 0;  // position that is expected next
};

template <typename Record>
template <typename NameOf>
RecordsByName<Record>::RecordsByName(std::vector<Record> records, const NameOf& name_of)
    : records_(std::move(records)) {
  names_.reserve(records_.size());  // the index refers to the names, which must stay where they are
  in_order_.reserve(records_.size());
  index_.reserve(records_.size());
  for (const Record& record : records_) {
    names_.push_back(utils::ToLowerCase(name_of(record.id)));
    in_order_.push_back(index_.try_emplace(names_.back(), &record).first->second);
  }
}

template <typename Record>
const Record* RecordsByName<Record>::Find(const std::string& name) {
  if (next_ < in_order_.size() && names_[next_] == name) {
    return in_order_[next_++];
  }
  const auto found = index_.find(name);
  if (found == index_.end()) {
    return nullptr;
  }
  next_ += 2;  // the expected one is not asked for, and this one may be the one after it
  return found->second;
}

/// Writes the limit and the distance to the warning level into a member of a report. `warning_line`
/// is that of a warning level above the limit.
template <typename Record>
void UpdateQuota(Json::Value& member, const std::string& key, RecordsByName<Record>& limits,
                 RecordsByName<Record>& warnings, const char* source_file, int warning_line) {
  Json::Value& quota = member[kQuota] = 0;
  unsigned long long limit = 0;
  if (const Record* found = limits.Find(key)) {
    limit = utils::ToULL(found->value);
    quota = Json::UInt64{limit};
  }

  Json::Value& remaining = member[kRemaining] = 0;
  if (const Record* found = warnings.Find(key)) {
    const unsigned long long warning = utils::ToULL(found->value);
    RequireWarningWithinLimit(limit, warning, source_file, warning_line);
    remaining = Json::UInt64{limit - warning};
  }
}

}  // namespace velamailserver::webapi
