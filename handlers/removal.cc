#include "removal.h"

#include <optional>
#include <set>
#include <utility>

#include <quillon/platform/no_owner_usage.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/run_as_root.h>

namespace quillon::handlers {

namespace {

// Nothing when the directory is gone.
std::optional<Json::Value> Measure(const DoomedMaildir& maildir) {
  Json::Value entry = maildir.entry;
  entry["path"] = maildir.path;
  Json::Value& usage = entry["usage"] = Json::Value();
  Json::Value& messages = entry["messages"] = Json::Value();
  try {
    const auto contents = platform::MeasureMaildir(maildir.path);
    if (!contents) {
      return std::nullopt;
    }
    usage = Json::UInt64{contents->bytes};
    messages = Json::UInt64{contents->messages};
  } catch (const velamailserver::LogException&) {
    // It has logged itself, and the entry says that nobody knows.
  }
  return entry;
}

// The entries of `before` whose paths none of `after` has.
Json::Value Gone(const Json::Value& before, const Json::Value& after) {
  std::set<std::string> paths;
  for (const Json::Value& entry : after) {
    paths.insert(entry["path"].asString());
  }
  Json::Value gone(Json::arrayValue);
  for (const Json::Value& entry : before) {
    if (!paths.contains(entry["path"].asString())) {
      gone.append(entry);
    }
  }
  return gone;
}

}  // namespace

Json::Value MeasureMaildirs(const std::vector<DoomedMaildir>& maildirs) {
  Json::Value entries(Json::arrayValue);
  velamailserver::velasdk::RunAsRoot("measure maildirs", [&] {
    for (const DoomedMaildir& maildir : maildirs) {
      if (auto entry = Measure(maildir)) {
        entries.append(std::move(*entry));
      }
    }
  });
  return entries;
}

void AddOutcome(const std::vector<DoomedMaildir>& maildirs, const Json::Value& before,
                Json::Value& answer) {
  Json::Value left = MeasureMaildirs(maildirs);
  answer["removed"] = Gone(before, left);
  answer["left"] = std::move(left);
}

}  // namespace quillon::handlers
