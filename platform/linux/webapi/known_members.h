#pragma once

#include <algorithm>
#include <initializer_list>
#include <string>
#include <string_view>

#include <json/value.h>

#include <vela/api_runner.h>

namespace quillon::platform {

/// Refuses parameters that are not an object (null counts as an empty one) and members that are not
/// `known`.
inline void RefuseUnknownMembers(const Json::Value& params,
                                 std::initializer_list<std::string_view> known) {
  using VELA::APIRunner;
  if (!params.isObject() && !params.isNull()) {
    throw VELA::APIError(APIRunner::kBadParameters, "the parameters must be an object");
  }
  for (const std::string& name : params.getMemberNames()) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      throw VELA::APIError(APIRunner::kBadParameters, "unknown parameter [" + name + "]");
    }
  }
}

}  // namespace quillon::platform
