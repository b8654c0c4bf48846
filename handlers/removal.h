#pragma once

#include <string>
#include <vector>

#include <json/value.h>

namespace quillon::handlers {

/// A mail directory that is to be removed.
struct DoomedMaildir {
  std::string path;
  /// What an answer tells of it besides its path and what is in it.
  Json::Value entry;
};

/// The entries of those that are there now, in the order given, as a JSON array. An entry has
/// "path", "usage" (bytes of all regular files, which is what removal frees) and "messages"
/// besides its own members. Both figures are null for a directory that cannot be read, which the
/// mail log explains. Looks as root.
Json::Value MeasureMaildirs(const std::vector<DoomedMaildir>& maildirs);

/// Looks again after a removal, and adds to `answer`:
///   "removed"  the entries of `before`, as it was measured then, that are gone from their paths
///   "left"     the entries of those that are there now
void AddOutcome(const std::vector<DoomedMaildir>& maildirs, const Json::Value& before,
                Json::Value& answer);

}  // namespace quillon::handlers
