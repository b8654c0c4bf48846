#pragma once

#include <string>

#include <json/value.h>

#include <vela/cred.h>

namespace quillon::platform {

/// Where a host takes calls; empty when the record names no host that can be asked.
std::string WebAPIURL(const _tag_vela_cred_& cred);

/// The request object, on one line.
std::string WebAPIBody(const std::string& api, int version, const std::string& method,
                       const Json::Value& params);

}  // namespace quillon::platform
